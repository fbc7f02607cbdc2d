list(APPEND PROCDET_SOURCES
  feature_detroot/ProcDetRootPolicy.cpp
  feature_detroot/ProcDetRootFullTaskPolicy.cpp
  feature_detroot/ProcDetRootFullTask.cpp
  feature_detroot/ProcDetRootRecords.cpp
  feature_detroot/ProcDetRootChecker.cpp
  feature_detroot/ProcDetRootAlarm.cpp)
