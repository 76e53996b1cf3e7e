# Installation: the programs, the libraries' static archives with their
# public headers, a pkg-config file, a CMake package (find_package(Dorvex))
# and a Debian package through CPack. Test-only targets are never installed.
#
#   cmake --install build --prefix /opt/dorvex
#   cpack --config build/CPackConfig.cmake -G DEB
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# One include root: the headers include each other by their path from it
# ("cms/base/dorvex_errno.h", "platform/securec.h").
set(VT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/dorvex)
set(VT_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Dorvex)
set(VT_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS verify_tool crl_info RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/doc/verify_tool.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# vt_warnings carries only build-tree settings; it is exported as an empty
# interface because every library links it publicly.
install(TARGETS cms cms_pki cms_asn1 cms_adapt cms_base dbglog platform vt_warnings
    EXPORT DorvexTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${VT_INSTALL_INCLUDEDIR})

set(VT_PUBLIC_HEADERS
    cms/dorvex.h cms/base/dorvex_errno.h cms/base/vrf_ctx.h cms/base/list.h
    dbglog/dbglog.h dbglog/zeb_sys.h
    platform/securec.h platform/lzeb_mem.h platform/lzeb_file.h platform/lzeb_exec.h
    platform/rbtree.h)
foreach(header IN LISTS VT_PUBLIC_HEADERS)
    cmake_path(GET header PARENT_PATH subdir)
    install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${VT_INSTALL_INCLUDEDIR}/${subdir})
endforeach()

# pkg-config: relocatable, the prefix is found from the .pc file's own place,
# so the same file serves `cmake --install --prefix`, DESTDIR and the .deb.
file(RELATIVE_PATH VT_PC_TO_PREFIX "/${VT_INSTALL_PKGCONFIGDIR}" "/")
string(REGEX REPLACE "/$" "" VT_PC_TO_PREFIX "${VT_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/dorvex.pc.in ${PROJECT_BINARY_DIR}/dorvex.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/dorvex.pc DESTINATION ${VT_INSTALL_PKGCONFIGDIR})

install(EXPORT DorvexTargets NAMESPACE Dorvex:: DESTINATION ${VT_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/DorvexConfig.cmake.in
    ${PROJECT_BINARY_DIR}/DorvexConfig.cmake INSTALL_DESTINATION ${VT_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DorvexConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/DorvexConfig.cmake ${PROJECT_BINARY_DIR}/DorvexConfigVersion.cmake
    DESTINATION ${VT_INSTALL_CMAKEDIR})

# Debian package: everything above in one package under /usr. Debian package
# names allow no underscore.
set(CPACK_PACKAGE_NAME verify-tool)
set(CPACK_PACKAGE_VENDOR "verify_tool developers")
set(CPACK_PACKAGE_CONTACT "verify_tool developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "package-signature verifier with its CMS verification library")
# Lines of the long description; CPack indents them for the control file.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "verify_tool checks a package's checksum file against a detached CMS"
    "signature with an RFC 3161 timestamp, its built-in root certificate and a"
    "CRL file, before an upgrade installs the package. Also crl_info, and the"
    "static libraries with headers, pkg-config file and CMake package.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "verify_tool developers")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libssl3 (>= 3.0.0), libc6")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# cpack would ask dpkg for the host's architecture; a cross-build packages
# for its target.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
# The package depends on the shared libcrypto; a static build is for devices.
if(VT_STATIC)
    set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/NoStaticPackage.cmake)
endif()
include(CPack)
