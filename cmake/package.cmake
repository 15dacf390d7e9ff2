# The Debian package "l3vpn" (CPack's DEB generator): the daemon in /usr/sbin,
# l3vpn-ctl in /usr/bin, the systemd units, the MOM's Redis settings in
# /etc/l3vpn (a conffile), a sysusers.d file for the daemon's user l3vpn, a
# tmpfiles.d file for the runtime folders, pid file and default log level, the
# man pages and the Debian doc files.
# scripts/package.sh builds it (Release, hardened, build-pkg/); `cpack -G DEB`
# in any configured build dir makes one from that build.
# The binaries' own install() lines are in app/proc/ and tools/.

set(L3VPN_PKG_VERSION 0.1.0)
set(L3VPN_PKG_RELEASE 1)
set(L3VPN_PKG_FULL_VERSION ${L3VPN_PKG_VERSION}-${L3VPN_PKG_RELEASE})
set(L3VPN_PKG_MAINTAINER "l3vpn maintainers <maintainers@users.noreply.c-seed-185b2f55.example>")
set(L3VPN_PKG_DOC share/doc/l3vpn)
set(pkg_src ${CMAKE_SOURCE_DIR}/deploy)
set(pkg_out ${CMAKE_BINARY_DIR}/pkg)

# Man pages and the Debian changelog go in gzipped with no name or time stamp
# (gzip -n: lintian wants that, and the package stays reproducible).
configure_file(${pkg_src}/debian/changelog.Debian.in ${pkg_out}/changelog.Debian @ONLY)
set(pkg_gz ${pkg_out}/changelog.Debian.gz)
add_custom_command(OUTPUT ${pkg_out}/changelog.Debian.gz
  COMMAND gzip -9nkf ${pkg_out}/changelog.Debian
  DEPENDS ${pkg_out}/changelog.Debian VERBATIM)
foreach(page ce_mpls_l3vpn.8 l3vpn-ctl.8)
  add_custom_command(OUTPUT ${pkg_out}/${page}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/man/${page} ${pkg_out}/${page}
    COMMAND gzip -9nf ${pkg_out}/${page}
    DEPENDS ${CMAKE_SOURCE_DIR}/man/${page} VERBATIM)
  list(APPEND pkg_gz ${pkg_out}/${page}.gz)
  install(FILES ${pkg_out}/${page}.gz DESTINATION share/man/man8)
endforeach()
add_custom_target(l3vpn_pkg_files ALL DEPENDS ${pkg_gz})

# Relative destinations are under the prefix: /usr in the package.
install(FILES ${pkg_src}/debian/copyright ${pkg_out}/changelog.Debian.gz DESTINATION ${L3VPN_PKG_DOC})
install(FILES ${pkg_src}/l3vpn.tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME l3vpn.conf)
install(FILES ${pkg_src}/l3vpn.sysusers.conf DESTINATION lib/sysusers.d RENAME l3vpn.conf)
install(FILES ${pkg_src}/debian/lintian-overrides DESTINATION share/lintian/overrides RENAME l3vpn)
install(FILES ${pkg_src}/ce-mpls-l3vpn.service ${pkg_src}/redis-l3vpn-mom.service
  DESTINATION /lib/systemd/system)
install(FILES ${pkg_src}/redis-l3vpn-mom.conf DESTINATION /etc/l3vpn)
# The MOM's accounts as shipped: postinst writes /etc/l3vpn/l3vpn-mom.acl from it
# with the hashes of the passwords it made (so not a conffile).
install(FILES ${pkg_src}/l3vpn-mom.acl DESTINATION share/l3vpn)

# Control files: the conffile list and the maintainer scripts.
file(WRITE ${pkg_out}/conffiles "/etc/l3vpn/redis-l3vpn-mom.conf\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME l3vpn)
set(CPACK_PACKAGE_VERSION ${L3VPN_PKG_VERSION})
set(CPACK_PACKAGE_VENDOR "l3vpn maintainers")
set(CPACK_PACKAGE_CONTACT ${L3VPN_PKG_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "MPLS L3VPN forwarding-state daemon")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "ce_mpls_l3vpn reads MPLS L3VPN forwarding configuration (FTN, VC-FTN and\n"
  "ILM entries, switches, tunnel counters) as protobuf records from a Redis\n"
  "record store, the MOM. It validates them, keeps its entries, next hops and\n"
  "inner adjacencies with their MPLS ids, enforces capacities and writes the\n"
  "lower layers' records back into the store.\n"
  "The package holds the daemon, the operator tool l3vpn-ctl, the systemd\n"
  "units ce-mpls-l3vpn and redis-l3vpn-mom and the MOM's Redis settings.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${L3VPN_PKG_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${L3VPN_PKG_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# adduser: postinst makes the user with it where systemd-sysusers is missing.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "redis-server, adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${pkg_out}/conffiles ${pkg_src}/debian/postinst ${pkg_src}/debian/prerm ${pkg_src}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
