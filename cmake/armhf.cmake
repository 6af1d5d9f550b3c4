# 32-bit ARM, hard float, against a sysroot of Debian packages that scripts/sysroot-armhf unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(armhf_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot" ABSOLUTE)
set(armhf_libraries "${armhf_sysroot}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_FIND_ROOT_PATH "${armhf_sysroot}" /usr/arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Before the compiler's own directories: one of them is the build machine's /usr/include, whose libevent has other widths.
# The sysroot holds no C library, so it hides nothing of the compiler's.
set(CMAKE_CXX_FLAGS_INIT
    "-isystem ${armhf_sysroot}/usr/include -isystem ${armhf_sysroot}/usr/include/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-L${armhf_libraries} -Wl,-rpath-link,${armhf_libraries}")

set(CMAKE_CROSSCOMPILING_EMULATOR
    "qemu-arm;-L;/usr/arm-linux-gnueabihf;-E;LD_LIBRARY_PATH=${armhf_libraries}")
