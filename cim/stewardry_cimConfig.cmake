# find_package(stewardry_cim) defines the target stewardry::cim.
include(CMakeFindDependencyMacro)
if(NOT WIN32)
  find_dependency(CURL)
  find_dependency(Threads)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/stewardry_cimTargets.cmake)
