# libzbiap.so.1: the library's layers (and the C API) as one shared library, linked from the
# objects the static layers are built from, so nothing is compiled twice. It exports the public
# API only: the objects are compiled with hidden visibility (ZBIAP_EXPORT marks the public
# classes and functions), and libzbiap.map keeps out the instances of standard templates that
# would otherwise leak in with default visibility.
set(ZBIAP_SHARED_LAYERS foundation platform support receipt storekit store catalog manager capi)

add_library(zbiap_shared SHARED)
foreach(_layer IN LISTS ZBIAP_SHARED_LAYERS)
  target_sources(zbiap_shared PRIVATE $<TARGET_OBJECTS:zbiap_${_layer}>)
endforeach()
target_include_directories(zbiap_shared
  PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
# The public headers use {fmt}; the rest stays behind the library.
target_link_libraries(zbiap_shared PUBLIC fmt::fmt
  PRIVATE Threads::Threads simdjson::simdjson SQLite::SQLite3 CURL::libcurl ICU::i18n ICU::uc
          OpenSSL::Crypto)
set(_zbiap_map "${PROJECT_SOURCE_DIR}/cmake/libzbiap.map")
target_link_options(zbiap_shared PRIVATE "LINKER:--version-script=${_zbiap_map}")
if(NOT ZBIAP_SANITIZE AND NOT ZBIAP_BUILD_FUZZ)
  # Every name resolved at link time. (A sanitizer's runtime is linked into the executable only,
  # so its names stay open in the library.)
  target_link_options(zbiap_shared PRIVATE "LINKER:--no-undefined")
endif()
set_target_properties(zbiap_shared PROPERTIES
  OUTPUT_NAME zbiap
  EXPORT_NAME shared
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS "${_zbiap_map}")
add_library(zbiap::shared ALIAS zbiap_shared)
