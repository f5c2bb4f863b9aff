# 32-bit x86 (i386) build on an x86-64 Debian host with gcc-multilib and
# g++-multilib:
#
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i386.cmake -DORV_CLIENT_ONLY=ON
#
# The i386 libraries (libldap-dev:i386, libssl-dev:i386, libgtest-dev:i386)
# come from the system's multiarch folders, or, with ORV_I386_SYSROOT, from
# a folder the i386 packages were unpacked into (./run does that when the
# packages cannot be installed side by side with the x86-64 ones).
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(ORV_I386_SYSROOT "$ENV{ORV_I386_SYSROOT}" CACHE PATH
  "Folder with unpacked i386 packages (empty: the system's multiarch folders)")

if(ORV_I386_SYSROOT)
  set(_orv_i386_lib "${ORV_I386_SYSROOT}/usr/lib/i386-linux-gnu")
  list(PREPEND CMAKE_PREFIX_PATH "${ORV_I386_SYSROOT}/usr")
  string(APPEND CMAKE_C_FLAGS_INIT " -isystem ${ORV_I386_SYSROOT}/usr/include/i386-linux-gnu")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -isystem ${ORV_I386_SYSROOT}/usr/include/i386-linux-gnu")
  # Programs find the unpacked libraries and their dependencies without
  # LD_LIBRARY_PATH (DT_RPATH applies to indirect dependencies too).
  foreach(kind EXE SHARED MODULE)
    string(APPEND CMAKE_${kind}_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_orv_i386_lib} -Wl,--disable-new-dtags")
  endforeach()
  set(CMAKE_BUILD_RPATH "${_orv_i386_lib}")
  set(ENV{PKG_CONFIG_LIBDIR} "${_orv_i386_lib}/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ORV_I386_SYSROOT}")
  set(OPENSSL_ROOT_DIR "${ORV_I386_SYSROOT}/usr")
else()
  set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
endif()
