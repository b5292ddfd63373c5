# Toolchain of the armhf preset: Debian's cross compiler, and the libraries that
# scripts/armhf-sysroot unpacked. Tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(VVLAN_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
set(VVLAN_SYSROOT_LIBS ${VVLAN_SYSROOT}/usr/lib/arm-linux-gnueabihf)
list(APPEND CMAKE_FIND_ROOT_PATH ${VVLAN_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${VVLAN_SYSROOT_LIBS}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VVLAN_SYSROOT})

# The C library is the cross compiler's own; only what else is needed comes
# from the unpacked packages.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-L${VVLAN_SYSROOT_LIBS} -Wl,-rpath-link,${VVLAN_SYSROOT_LIBS} -Wl,-rpath-link,${VVLAN_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/run-armhf)
