# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KESTREL_TRIPLET aarch64-linux-gnu)
set(KESTREL_EMULATOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
