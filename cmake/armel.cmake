# 32-bit ARM without a floating-point unit. v6 is the first with atomic words in its instruction set; the compiler's
# own default, v5, has none.
set(CMAKE_SYSTEM_PROCESSOR armv6l)
set(KESTREL_TRIPLET arm-linux-gnueabi)
set(KESTREL_EMULATOR arm)
set(CMAKE_C_FLAGS_INIT "-march=armv6 -marm")
set(CMAKE_CXX_FLAGS_INIT "-march=armv6 -marm")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
