# CPack post-build step for the Debian packages (CPACK_POST_BUILD_SCRIPTS).
#
# The .deb: its data archive loses the ./usr/local/ entry. /usr/local belongs to the administrator
# (base-files makes it, no package owns it); CPack lists every parent directory of what it packs,
# and a package that lists /usr/local makes dpkg try to remove it at purge and warn that it is not
# empty. dpkg needs no entry for a directory that exists, and /usr/local exists on every Debian
# system.
#
# The .ddeb (debug symbols): CPack writes its md5sums with the build directory's absolute paths,
# leaves the .debug files executable and gives it no documentation. It is rebuilt with dpkg-deb,
# with md5sums of its files, .debug files 0644 and /usr/share/doc/<package>-dbgsym linking to the
# main package's documentation, as Debian's own -dbgsym packages do.

function(deb_run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    string(REPLACE ";" " " command "${ARGV}")
    message(FATAL_ERROR "${command}: ${result} ${error}")
  endif()
endfunction()

function(deb_disown_usr_local deb)
  set(work "${deb}.work")
  file(REMOVE_RECURSE "${work}")
  file(MAKE_DIRECTORY "${work}/root")
  deb_run(ar x "${deb}" --output "${work}")
  if(NOT EXISTS "${work}/data.tar.gz" OR NOT EXISTS "${work}/control.tar.gz")
    message(FATAL_ERROR "${deb}: expected control.tar.gz and data.tar.gz")
  endif()
  # Extracted and packed again in the same order (tar --delete corrupts CPack's archives).
  execute_process(COMMAND tar -tzf "${work}/data.tar.gz" OUTPUT_VARIABLE entries RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${deb}: cannot list data.tar.gz")
  endif()
  string(REGEX REPLACE "(^|\n)\\./usr/local/\n" "\\1" entries "${entries}")
  file(WRITE "${work}/entries" "${entries}")
  deb_run(tar -xpzf "${work}/data.tar.gz" -C "${work}/root")
  deb_run(tar -cf "${work}/data.tar" -C "${work}/root" --no-recursion --owner=root:0 --group=root:0
          --format=gnu -T "${work}/entries")
  deb_run(gzip -9 -n -f "${work}/data.tar")
  file(REMOVE "${deb}")
  # The members in the order dpkg requires.
  deb_run(ar rcD "${deb}" "${work}/debian-binary" "${work}/control.tar.gz" "${work}/data.tar.gz")
  file(REMOVE_RECURSE "${work}")
endfunction()

function(deb_repack_debug_symbols ddeb)
  set(root "${ddeb}.work")
  file(REMOVE_RECURSE "${root}")
  deb_run(dpkg-deb -R "${ddeb}" "${root}")
  execute_process(COMMAND dpkg-deb -f "${ddeb}" Package OUTPUT_VARIABLE package OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REGEX REPLACE "-dbgsym$" "" main_package "${package}")
  file(GLOB_RECURSE debug_files "${root}/usr/lib/debug/*.debug")
  file(CHMOD ${debug_files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(MAKE_DIRECTORY "${root}/usr/share/doc")
  file(CREATE_LINK "${main_package}" "${root}/usr/share/doc/${package}" SYMBOLIC)
  set(md5sums "")
  foreach(file IN LISTS debug_files)
    file(MD5 "${file}" sum)
    file(RELATIVE_PATH relative "${root}" "${file}")
    string(APPEND md5sums "${sum}  ${relative}\n")
  endforeach()
  file(WRITE "${root}/DEBIAN/md5sums" "${md5sums}")
  file(REMOVE "${ddeb}")
  deb_run(dpkg-deb --root-owner-group -Zxz -b "${root}" "${ddeb}")
  file(REMOVE_RECURSE "${root}")
endfunction()

foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
  if(package_file MATCHES "\\.deb$")
    deb_disown_usr_local("${package_file}")
  elseif(package_file MATCHES "\\.ddeb$")
    deb_repack_debug_symbols("${package_file}")
  endif()
endforeach()
