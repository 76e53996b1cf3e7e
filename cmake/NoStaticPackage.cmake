# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) in a VT_STATIC build: refuses to make
# the Debian package. The package declares libcrypto a shared dependency
# (libssl3) so that the distribution's OpenSSL security updates reach
# verify_tool; programs with libcrypto linked in would keep the copy they were
# built with and silently miss them.
message(FATAL_ERROR "No Debian package from a VT_STATIC build: configure a build "
                    "with -DVT_STATIC=OFF for cpack (libcrypto stays shared for security updates).")
