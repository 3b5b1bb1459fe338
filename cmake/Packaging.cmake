# `make package`: one Debian package of everything the install rules install
# (no components, so whatever gets an install rule is packaged too), under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumetra-depth)
set(CPACK_PACKAGE_VENDOR "Lumetra")
set(CPACK_PACKAGE_CONTACT "Lumetra Dev <dev@lumetra.local>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Metric depth from a calibrated stereo camera pair")
set(CPACK_PACKAGE_DESCRIPTION
  "Shared library with a C interface that turns a calibrated stereo camera pair into metric depth, \
point clouds and registered colour; with its header, CMake package, pkg-config file and the \
lumetra-depth command-line program.")
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Install rules with absolute destinations land in the package, not on this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Dependencies from the shared objects' own needs (dpkg-shlibdeps): the OpenCV
# libraries, libstdc++, ...; and a shlibs file and ldconfig trigger for ours.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
