# find_package(KivVeltro): KivVeltro::KivVeltro, and the libraries below it for agents that use
# them directly: KivVeltro::kiv, KivVeltro::SegMem, KivVeltro::nsjoin.
include("${CMAKE_CURRENT_LIST_DIR}/KivVeltroTargets.cmake")
