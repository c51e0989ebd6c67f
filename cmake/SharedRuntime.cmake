# -DTARN_SHARED_RUNTIME=ON: the programs for a machine that has the C++ library anyway. They are linked to it dynamically and
# compiled for size, each as one whole; the default build is linked without libraries and stays as it is. Nothing in them throws or asks
# for a type at run time, so what only that would need goes. The tests are built without this option.

option(TARN_SHARED_RUNTIME "Small programs that need the machine's C++ library" OFF)
if(TARN_SHARED_RUNTIME)
  set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG")
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
  # A call of the library by way of the linkage table is one instruction on PowerPC, and four without it.
  target_compile_options(tarn_options INTERFACE
    -fplt -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-unwind-tables -fmerge-all-constants)
  # PowerPC's linker leaves room for pages of 64 KiB between code and data; small machines have 4 KiB.
  target_link_options(tarn_options INTERFACE -Wl,--as-needed,-O1,--hash-style=gnu,--build-id=none -Wl,-z,max-page-size=4096)
endif()
