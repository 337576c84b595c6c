# find_package(OrbelTestKit): the plug-in test kit and what its header needs.
include(CMakeFindDependencyMacro)
find_dependency(PellCommon_Orbel)
find_dependency(GTest)
find_dependency(nlohmann_json)
include("${CMAKE_CURRENT_LIST_DIR}/OrbelTestKitTargets.cmake")
