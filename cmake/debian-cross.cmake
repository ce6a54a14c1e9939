# What the toolchain files of this folder share: Debian's cross compiler for KESTREL_TRIPLET, and an emulator for what
# is tested at the desk. KESTREL_SYSROOT is a folder with further libraries of that architecture, for the unit tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KESTREL_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KESTREL_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KESTREL_TRIPLET})
set(KESTREL_SYSROOT "" CACHE PATH "Folder with further libraries of the target's architecture")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_SYSROOT)

set(CMAKE_FIND_ROOT_PATH /usr/${KESTREL_TRIPLET})
set(kestrel_libraries /usr/${KESTREL_TRIPLET})
if(KESTREL_SYSROOT)
  list(PREPEND CMAKE_FIND_ROOT_PATH ${KESTREL_SYSROOT})
  set(kestrel_libraries ${KESTREL_SYSROOT})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KESTREL_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
    ${KESTREL_SYSROOT}/usr/lib/${KESTREL_TRIPLET}/pkgconfig:${KESTREL_SYSROOT}/usr/share/pkgconfig)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${KESTREL_EMULATOR} -L ${kestrel_libraries})
