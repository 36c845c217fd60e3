# Binary packages, made by `cpack` in a build tree from the components of the
# install rules (tools/package.sh configures, builds and packs).
#
# Elsewhere: two Debian packages, named as Debian names libraries.
#   libzrx2dsticker<SOVERSION>  the library under its SONAME and nothing else,
#       so runtime packages of two major versions install side by side; its
#       dependencies are worked out by dpkg-shlibdeps (Debian's dpkg-dev)
#       from the library's NEEDED entries: libcurl, minizip and the C and C++
#       runtimes (zlib comes with minizip: the library calls no zlib function
#       itself). Its shlibs file lets a host's own package depend on it.
#   libzrx2dsticker-dev  headers, the link name, the CMake and pkg-config
#       packages; depends on the runtime package of exactly its version.
# Configure with CMAKE_INSTALL_PREFIX=/usr so that the library lands in
# Debian's multiarch directory (lib/x86_64-linux-gnu).
#
# Windows: one zip with bin/ (the DLL and every DLL it loads that isn't part
# of Windows), lib/ (import library, CMake and pkg-config packages) and
# include/.
#
# zrx-fetch and its catalogue (component Examples) go in no package. They are
# an example whose value is its source, built with the library in seconds;
# and installed in /usr/bin zrx-fetch could not fetch https stickers, because
# the library trusts only the CA bundle cacerts/ beside the host's executable,
# which no package may put in /usr/bin.

set(ZRX_PACKAGE_MAINTAINER
  "zrx2dsticker maintainers <maintainers@zrx2dsticker.invalid>"
  CACHE STRING "Maintainer named in the Debian packages")
set(ZRX_DEB_RELEASE 1 CACHE STRING
  "Debian revision of the packages (the part after the version's hyphen)")

set(CPACK_PACKAGE_NAME zrx2dsticker)
set(CPACK_PACKAGE_VENDOR zrx2dsticker)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ZRX_PACKAGE_MAINTAINER}")
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX packages)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_ARCHIVE_FILE_NAME zrx2dsticker-${PROJECT_VERSION}-win64)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_ZRX_STRIP "${CMAKE_STRIP}")
  set(CPACK_PRE_BUILD_SCRIPTS
    ${CMAKE_CURRENT_LIST_DIR}/PackagingStripDlls.cmake)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ZRX_PACKAGE_MAINTAINER}")
  set(CPACK_DEBIAN_PACKAGE_RELEASE ${ZRX_DEB_RELEASE})
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME
    libzrx2dsticker${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"library keeping an application's 2D stickers on the local disk
zrx2dsticker takes a JSON list of stickers and a download directory, works
out from the disk which stickers are installed, fetches the others over HTTP
or HTTPS with libcurl, unpacks zip archives on a second thread, and tells the
host's listener of each sticker's progress, success or failure.
.
This package holds the shared library.")

  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzrx2dsticker-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"development files of zrx2dsticker
zrx2dsticker takes a JSON list of stickers and a download directory, works
out from the disk which stickers are installed, fetches the others over HTTP
or HTTPS with libcurl, unpacks zip archives on a second thread, and tells the
host's listener of each sticker's progress, success or failure.
.
This package holds the C++ headers, the link name of the library and its
CMake (find_package(zrx2dsticker)) and pkg-config (zrx2dsticker) packages.")
endif()

include(CPack)
