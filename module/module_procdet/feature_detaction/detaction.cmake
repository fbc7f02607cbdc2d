list(APPEND PROCDET_SOURCES
  ProcDetModule.cpp
  feature_detaction/DetectorProc.cpp
  feature_detaction/ProcDetActionAlert.cpp
  feature_detaction/ProcDetActionFullTask.cpp
  feature_detaction/ProcDetActionFullTaskPolicy.cpp
  feature_detaction/ProcDetActionPolicy.cpp
  feature_detaction/ProcDetCmdline.cpp
  feature_detaction/ProcDetCpu.cpp
  feature_detaction/ProcDetManager.cpp
  feature_detaction/ProcDetManagerResults.cpp)
