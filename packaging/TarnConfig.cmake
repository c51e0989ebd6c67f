# find_package(Tarn CONFIG): Tarn::bus, Tarn::web, Tarn::xml, Tarn::crypto, and Tarn::base, which those bring along.
include(${CMAKE_CURRENT_LIST_DIR}/TarnTargets.cmake)
