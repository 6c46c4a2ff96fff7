# What a package holds and how its binary is built.
#
# A Release (or MinSizeRel) build is the package build, as the OpenWrt SDK configures it: the
# daemon's code is built for size (-Os, one section per function and object, unused ones
# dropped at link time), without exceptions or RTTI, with the pieces of the C++ runtime it
# uses linked in (the AP needs no shared libstdc++ or libgcc_s), only the shared libraries it
# calls into recorded as needed (libm goes when nothing uses it) and stripped.
# Other build types keep the compiler's defaults, for debugging and the sanitizers.
include(GNUInstallDirs)

if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
  # Nothing unwinds through the daemon's frames (no exceptions), so they need no unwind tables.
  set(TARN_SIZE_OPTIONS -Os -ffunction-sections -fdata-sections -fno-exceptions -fno-rtti
                        -fno-asynchronous-unwind-tables)
  target_compile_options(tarn_core PRIVATE ${TARN_SIZE_OPTIONS})
  target_compile_options(tarn_bus_binding PRIVATE ${TARN_SIZE_OPTIONS})
  target_compile_options(tarn PRIVATE ${TARN_SIZE_OPTIONS})
  target_compile_options(tarn-info PRIVATE ${TARN_SIZE_OPTIONS})
  # The receive path's decode runs for every datagram from the network: its few hundred bytes
  # of code are built for speed (memset and memcpy as library calls, not byte loops).
  set_source_files_properties(${PROJECT_SOURCE_DIR}/src/proto/nbcp_parse.cpp
                              ${PROJECT_SOURCE_DIR}/src/proto/nbcp_touched.cpp
                              ${PROJECT_SOURCE_DIR}/src/proto/nbcp_wire.cpp
                              TARGET_DIRECTORY tarn_core PROPERTIES COMPILE_OPTIONS -O2)
  foreach(program tarn tarn-info)
    target_link_options(${program} PRIVATE -static-libstdc++ -static-libgcc -Wl,--gc-sections
                        -Wl,--as-needed -s)
  endforeach()
  # tarn-info's code fits in a few pages: one read-only and executable segment instead of
  # separate page-aligned ones saves it the padding between them.
  target_link_options(tarn-info PRIVATE -Wl,-z,noseparate-code)
endif()

# Only the daemon, its reader tarn-info and their manual pages: tarn-bus, the lab, the tests and the benchmarks are
# development tools.
install(TARGETS tarn tarn-info RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/doc/tarn.8 ${CMAKE_CURRENT_SOURCE_DIR}/doc/tarn-info.8
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
