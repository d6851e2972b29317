# Debian packages with CPack (cpack -G DEB in the build tree; scripts/package.sh does it all):
#   libvexlo1          component runtime: the shared library
#   libvexlo-dev       component dev: headers, the unversioned link, vexlo.pc, the CMake package, vexlo(3)
#   vexlo-tools        component tools: vexlo-sim and the command-line tools, Wireshark's capture
#                      program vexlo-extcap, the udev rule, vexlo serve's systemd unit and its
#                      options file /etc/default/vexlo-serve (a conffile), their pages
#   python3-vexlo-can  component python: the python-can interface, when python/ is part of the build
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vexlo)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "vexlo maintainers <maintainers@vexlo.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(EXISTS ${PROJECT_SOURCE_DIR}/python/CMakeLists.txt)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A program of vexlo-tools that links libvexlo.so.1 finds it in the build tree; the dependency on
# libvexlo1 is then stated through the component dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvexlo1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig runs through dpkg's trigger. Without maintainer scripts of its own the package would
# get CPack's, which call ldconfig: naming scripts that do not exist stops CPack writing them.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/libvexlo1/triggers
    ${PROJECT_BINARY_DIR}/packaging/no-script/postinst ${PROJECT_BINARY_DIR}/packaging/no-script/postrm)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "driver library for a two-channel USB-to-CAN adapter
vexlo drives the two-channel USB-to-CAN adapter with USB identifier
0471:1200 from user space over libusb-1.0. Applications open the adapter,
configure and start its CAN channels, send and receive frames, and read its
identity, controller status and errors through a flat C interface, with a
pollable receive descriptor and loss counters beside it.
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvexlo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
# vexlo.pc requires libusb-1.0.pc (Requires.private), which pkg-config reads even for shared links.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libusb-1.0-0-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "driver library for a two-channel USB-to-CAN adapter (development files)
vexlo drives the two-channel USB-to-CAN adapter with USB identifier
0471:1200 from user space over libusb-1.0.
.
This package contains the C headers, the pkg-config file, the CMake package
(find_package(vexlo) and the target vexlo::vexlo) and the manual page
vexlo(3).")

# vexlo-sim links umockdev's preload library, which it also preloads into the program it runs:
# the package that holds it (umockdev) comes with the other libraries' packages from shlibdeps.
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vexlo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
# /etc/default/vexlo-serve, the options of vexlo serve's systemd instances, is the admin's to edit.
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/vexlo-tools/conffiles)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "tools for a two-channel USB-to-CAN adapter
vexlo drives the two-channel USB-to-CAN adapter with USB identifier
0471:1200 from user space over libusb-1.0.
.
This package contains vexlo-sim, which runs any program against simulated
adapters so that CAN applications can be developed and tested without
hardware, the command-line tools, vexlo-extcap, which makes each CAN channel
a capture interface of Wireshark and tshark, and a udev rule that gives the
user at the seat and members of the plugdev group access to the adapter.
.
vexlo serve shares the adapter: its channels become Linux CAN interfaces
(can0, can1) for every SocketCAN program, and buses of the socketcand
protocol. Its systemd unit, once enabled, starts with the adapter and stops
when it is removed.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-vexlo-can)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libvexlo1 (>= ${PROJECT_VERSION}), python3:any, python3-can")
# Byte-compiled on installation, and the byte code removed with the package, as Debian's python
# packages do (py3compile and py3clean).
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/python3-vexlo-can/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/python3-vexlo-can/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "python-can interface for a two-channel USB-to-CAN adapter
vexlo drives the two-channel USB-to-CAN adapter with USB identifier
0471:1200 from user space over libusb-1.0.
.
This package lets python-can open the adapter as can.Bus(interface='vexlo'),
so python-can's tools and the libraries built on it work with it.")

# Every package gets /usr/share/doc/PACKAGE/copyright and changelog.Debian.gz.
# (CPackConfig.cmake keeps only CPACK_* variables, hence the names of the two paths.)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/DebianDocs.cmake)
set(CPACK_VEXLO_DEB_COPYRIGHT ${PROJECT_SOURCE_DIR}/packaging/debian/copyright)
set(CPACK_VEXLO_DEB_CHANGELOG ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)

include(CPack)
