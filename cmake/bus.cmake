# The daemon's bus service.
#
# TARN_BUS=auto (default) uses the platform's ubus when libubox, libubus and libblobmsg_json and
# their headers are all found (as in an OpenWrt SDK build, where the toolchain file points the
# search at the staging directory); otherwise the daemon serves the embedded development bus of
# devbus/ and the tarn-bus command is built. TARN_BUS=ubus insists on the platform's bus,
# TARN_BUS=embedded never looks for it. A package's sources hold no devbus/: there the platform's
# bus is the only choice.
set(TARN_BUS "auto" CACHE STRING "Bus service: auto, ubus or embedded")
set_property(CACHE TARN_BUS PROPERTY STRINGS auto ubus embedded)

set(TARN_HAVE_UBUS OFF)
if(NOT TARN_BUS STREQUAL "embedded")
  # The SDK ships no pkg-config files for these; pkg-config is asked first where it has them.
  if(PkgConfig_FOUND)
    pkg_check_modules(TARN_PC_UBOX QUIET libubox)
    pkg_check_modules(TARN_PC_UBUS QUIET libubus)
  endif()
  find_path(UBOX_INCLUDE_DIR libubox/uloop.h HINTS ${TARN_PC_UBOX_INCLUDE_DIRS})
  find_path(UBUS_INCLUDE_DIR libubus.h HINTS ${TARN_PC_UBUS_INCLUDE_DIRS})
  find_library(UBOX_LIBRARY ubox HINTS ${TARN_PC_UBOX_LIBRARY_DIRS})
  find_library(UBUS_LIBRARY ubus HINTS ${TARN_PC_UBUS_LIBRARY_DIRS})
  find_library(BLOBMSG_JSON_LIBRARY blobmsg_json HINTS ${TARN_PC_UBOX_LIBRARY_DIRS})
  if(UBOX_INCLUDE_DIR AND UBUS_INCLUDE_DIR AND UBOX_LIBRARY AND UBUS_LIBRARY
     AND BLOBMSG_JSON_LIBRARY)
    set(TARN_HAVE_UBUS ON)
  elseif(TARN_BUS STREQUAL "ubus")
    message(FATAL_ERROR "TARN_BUS=ubus, but libubox, libubus or libblobmsg_json is missing")
  endif()
endif()

# Whichever binding is chosen becomes the object library tarn_bus_binding: its objects go into
# the tarn executable, which is the one place the choice is made. The core library knows only the
# binding's entry points (ubus/ubus_service.h), so tarn_core links no bus and the development
# bus's library links no tarn_core; each executable that needs a bus links
# "tarn_bus_binding tarn_core" in that order.
if(TARN_HAVE_UBUS)
  message(STATUS "Bus service: platform ubus (${UBUS_LIBRARY})")
  add_library(tarn_bus_binding OBJECT ${PROJECT_SOURCE_DIR}/src/ubus/binding_ubus.cpp)
  target_include_directories(tarn_bus_binding PRIVATE
                             $<TARGET_PROPERTY:tarn_core,INTERFACE_INCLUDE_DIRECTORIES>)
  # System headers: their warnings are theirs, not ours to fail the build on.
  target_include_directories(tarn_bus_binding SYSTEM PUBLIC ${UBOX_INCLUDE_DIR} ${UBUS_INCLUDE_DIR})
  target_link_libraries(tarn_bus_binding INTERFACE ${UBUS_LIBRARY} ${BLOBMSG_JSON_LIBRARY}
                                                   ${UBOX_LIBRARY})
elseif(EXISTS ${PROJECT_SOURCE_DIR}/devbus/CMakeLists.txt)
  message(STATUS "Bus service: embedded development bus, with the tarn-bus command")
  add_subdirectory(${PROJECT_SOURCE_DIR}/devbus ${PROJECT_BINARY_DIR}/devbus)
else()
  message(FATAL_ERROR "No bus: libubox, libubus or libblobmsg_json is missing and these sources "
                      "hold no devbus/ (the embedded development bus)")
endif()
