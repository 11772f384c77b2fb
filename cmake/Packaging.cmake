# Debian packages, one per install component:
#
#   libcrrecord1     runtime  the two shared libraries (SONAME major 1)
#   libcrrecord-dev  dev      headers, CMake package, pkg-config file, the
#                             .so links to link against
#   crrec            tools    the command-line tool
#
#   cpack -G DEB          (in the build directory)
#
# Depends of the binary packages come from dpkg-shlibdeps (dpkg-dev); our
# own packages are named explicitly at the exact version, since the three
# are built and installed together. The build tree should be configured with
# -DCMAKE_INSTALL_PREFIX=/usr so that GNUInstallDirs picks the multiarch
# library directory (lib/<triplet>) the packages install into.

set(CRRECORD_PACKAGE_VERSION ${PROJECT_VERSION})
set(CRRECORD_RUNTIME_PACKAGE libcrrecord${PROJECT_VERSION_MAJOR})

set(CPACK_PACKAGE_NAME crrecord)
set(CPACK_PACKAGE_VENDOR "crrecord developers")
set(CPACK_PACKAGE_CONTACT "crrecord developers <crrecord@localhost>")
set(CPACK_PACKAGE_VERSION ${CRRECORD_PACKAGE_VERSION})
# Each component's description below starts with its own summary line.
# CPackDeb puts the package-wide summary above it unless that summary is
# CPack's default text, so the default is kept on purpose.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Debug information stays in the build tree, as in Debian's own packages.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET crrec)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file in the runtime package, so that dpkg-shlibdeps of programs
# built against it records the dependency.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps runs in each component's staging directory; the tool's
# NEEDED libcrrecord.so.1 is found in the runtime component's one.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "../runtime${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${CRRECORD_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "record formats for a deduplicating storage service (shared libraries)\n"
    "The DO record (one per stored file: segment list, containers, typed references)\n"
    "and the SO record (one per stored segment): building, validation, byte-order\n"
    "conversion, big-endian exchange forms, digest and printing.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libcrrecord-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE_INDEPENDENT OFF)
# The headers include Boost and the CMake package finds OpenSSL.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${CRRECORD_RUNTIME_PACKAGE} (= ${CRRECORD_PACKAGE_VERSION}), libssl-dev, libboost-dev (>= 1.74)")
string(CONCAT CPACK_COMPONENT_DEV_DESCRIPTION
    "record formats for a deduplicating storage service (development files)\n"
    "Headers, the CMake package (find_package(crrecord)) and the pkg-config file\n"
    "of the crrecord libraries.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME crrec)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${CRRECORD_RUNTIME_PACKAGE} (= ${CRRECORD_PACKAGE_VERSION})")
string(CONCAT CPACK_COMPONENT_TOOLS_DESCRIPTION
    "record formats for a deduplicating storage service (command-line tool)\n"
    "crrec builds DO records from files and shows, verifies and converts records.")

include(CPack)
