# `cmake --install`: smbflow, the plug-in in smbflow's plug-in directory, the IPFIX element
# definitions, the pmacct primitives and configuration, the man page and the systemd unit.
include(GNUInstallDirs)

set(SMBFLOW_PLUGIN_DIR ${CMAKE_INSTALL_LIBDIR}/smbflow)
set(SMBFLOW_DATA_DIR ${CMAKE_INSTALL_DATADIR}/smbflow)
# smbflow finds the plug-in relative to itself first, so an install tree under another prefix
# (DESTDIR, --prefix at install time) works as well as the configured one.
file(RELATIVE_PATH plugin_reldir ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_PREFIX}/${SMBFLOW_PLUGIN_DIR})
target_compile_definitions(
  smbflow_lib PRIVATE SMBFLOW_VERSION="${PROJECT_VERSION}"
                      SMBFLOW_PLUGIN_DIR="${CMAKE_INSTALL_PREFIX}/${SMBFLOW_PLUGIN_DIR}"
                      SMBFLOW_PLUGIN_RELDIR="${plugin_reldir}")

install(TARGETS smbflow RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS plugin-process-smb LIBRARY DESTINATION ${SMBFLOW_PLUGIN_DIR})
install(FILES smb-elements.xml DESTINATION ${SMBFLOW_DATA_DIR})
configure_file(dist/pmacct/nfacctd.conf.in ${CMAKE_CURRENT_BINARY_DIR}/nfacctd.conf @ONLY)
install(FILES dist/pmacct/smb-primitives.lst ${CMAKE_CURRENT_BINARY_DIR}/nfacctd.conf
        DESTINATION ${SMBFLOW_DATA_DIR}/pmacct)
install(FILES dist/smbflow.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES dist/smbflow.conf DESTINATION ${SMBFLOW_DATA_DIR})
configure_file(dist/smbflow@.service.in ${CMAKE_CURRENT_BINARY_DIR}/smbflow@.service @ONLY)
# The unit goes under the prefix's lib/systemd/system (/usr/lib/systemd/system for a package,
# /usr/local/lib/systemd/system for a local install: both are on systemd's unit path).
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/smbflow@.service DESTINATION lib/systemd/system)
