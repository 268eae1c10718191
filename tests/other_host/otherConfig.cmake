include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Boost 1.81 COMPONENTS thread)
include("${CMAKE_CURRENT_LIST_DIR}/otherTargets.cmake")
