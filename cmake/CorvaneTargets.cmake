# corvane_host_library(name SOURCES...): a host library installed to lib/.
function(corvane_host_library name)
  add_library(${name} SHARED ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/host/include)
  set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CORVANE_LIB_DIR})
  install(TARGETS ${name} LIBRARY DESTINATION lib)
endfunction()

# corvane_module(name SOURCES...): a plug-in module (exports CreateModule), installed to module/.
function(corvane_module name)
  add_library(${name} SHARED ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/host/include)
  set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CORVANE_MODULE_DIR})
  # clang's sanitizer runtimes live in the executable, not in shared libraries.
  if(NOT CORVANE_FUZZ)
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  install(TARGETS ${name} LIBRARY DESTINATION module)
endfunction()
