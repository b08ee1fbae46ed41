# Debian packages with CPack (`cpack -G DEB` in the build directory), one per install component:
#   libzbiap1     the shared library
#   libzbiap-dev  headers, static libraries, CMake package, pkg-config files
#   zbiap-tools   the zbiap command-line tool
# Their dependencies on Debian's libraries are worked out by dpkg-shlibdeps (package dpkg-dev);
# libzbiap-dev adds the -dev packages a static link or the C++ headers need. The first line of
# each description is its synopsis.
set(CPACK_PACKAGE_NAME zbiap)
set(CPACK_PACKAGE_VENDOR "ZBIAP developers")
set(CPACK_PACKAGE_CONTACT "ZBIAP developers <zbiap@example.com>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzbiap1)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "In-app purchase client library
The shared library libzbiap.so.1, with its C++ and C API: the store country, the catalogue of
products with prices, texts and colours, and the user's purchases, from the App Store and an
account server.")
# Lets dpkg-shlibdeps resolve packages that link libzbiap.so.1.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzbiap-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "In-app purchase client library (development files)
Headers (C++ and C), static libraries, the CMake package (find_package(zbiap CONFIG)) and the
pkg-config files zbiap and zbiap-static.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libfmt-dev, libsimdjson-dev, libicu-dev, libssl-dev, libsqlite3-dev, libcurl4-openssl-dev")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zbiap-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "In-app purchase client library (the zbiap tool)
The demo of the whole system, the development catalogue server, and the receipt, ASN.1 and
catalogue checks.")

include(CPack)
