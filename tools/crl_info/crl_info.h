// crl_info: shows the CRLs of a CRL file and decides whether a delivered CRL
// file may replace the installed one, trusting the root verify_tool trusts.
#ifndef TOOLS_CRL_INFO_CRL_INFO_H
#define TOOLS_CRL_INFO_CRL_INFO_H

// Exit statuses.
#define CRL_INFO_EXIT_OK 0       // all CRLs trusted / the first file may replace the second
#define CRL_INFO_EXIT_REFUSED 1  // an untrusted CRL / the first file may not replace the second
#define CRL_INFO_EXIT_ERROR 2    // bad command line, unreadable or undecodable file

// CrlInfoMain: runs the program on its command line and returns the exit
// status. The report goes to standard output; everything else, the CMS
// library's own error and warning lines included, to standard error.
int CrlInfoMain(int argc, char *argv[]);

#endif  // TOOLS_CRL_INFO_CRL_INFO_H
