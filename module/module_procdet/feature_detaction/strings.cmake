list(APPEND PROCDET_SOURCES
  feature_detaction/ProcDetStrings.cpp
  feature_detaction/ProcDetStringsCache.cpp
  feature_detaction/ProcDetStringsFiles.cpp
  feature_detaction/ProcDetStringsMatcher.cpp
  feature_detaction/ProcDetStringsScanner.cpp)
