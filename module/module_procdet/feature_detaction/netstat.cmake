list(APPEND PROCDET_SOURCES
  feature_detaction/ProcDetNetstat.cpp
  feature_detaction/ProcDetNetstatBlacklist.cpp)
