# cmake -DDER=<file> -DOUT=<file.cpp> -P embed_root_check.cmake
# Runs the build's root-certificate embedding step on one file.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/EmbedRootCert.cmake)
vt_embed_root_cert("${DER}" "${OUT}")
