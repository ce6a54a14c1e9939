# 32-bit ARM, v7 with hardware floating point, thumb code: most cameras.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KESTREL_TRIPLET arm-linux-gnueabihf)
set(KESTREL_EMULATOR arm)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a+fp -mthumb")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a+fp -mthumb")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
