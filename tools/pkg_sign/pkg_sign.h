// pkg_sign: the producer's side of a package signature. Signs a package's
// checksum file with a detached CMS SignedData, writes the RFC 3161 query for
// its signature value, embeds the time-stamping authority's token, and can act
// as a local authority for test setups; `manifest` writes the checksum file
// of a package folder for verify_tool's CHECK_PKG_FILES. It refuses, before a package ships,
// every signature that verify_tool would refuse for its form: too many
// certificates, a digest other than SHA-256/384/512, a key that is not RSA, a
// signer without code signing, an authority without time stamping, a token
// that stamps something else.
//
// A producer program: it links OpenSSL and nothing of the verifier.
#ifndef TOOLS_PKG_SIGN_PKG_SIGN_H
#define TOOLS_PKG_SIGN_PKG_SIGN_H

// Exit statuses.
#define PKG_SIGN_EXIT_OK 0       // the output files are written
#define PKG_SIGN_EXIT_REFUSED 1  // refused or failed; nothing is written (see stderr)
#define PKG_SIGN_EXIT_USAGE 2    // bad command line

// PkgSignMain: runs the program on its command line and returns the exit
// status. Messages go to standard error; --help prints the usage on standard
// output.
int PkgSignMain(int argc, char *argv[]);

#endif  // TOOLS_PKG_SIGN_PKG_SIGN_H
