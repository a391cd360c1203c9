# SPDX-License-Identifier: Apache-2.0
# Libraries of the distribution. What is used of Boost are headers.
find_package(PkgConfig REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(Boost 1.74 REQUIRED)
pkg_check_modules(LIBSSH2 REQUIRED IMPORTED_TARGET libssh2>=1.10)
pkg_check_modules(LOG4CPP REQUIRED IMPORTED_TARGET log4cpp>=1.1)
pkg_check_modules(LIBIDN REQUIRED IMPORTED_TARGET libidn)
pkg_check_modules(NCURSESW REQUIRED IMPORTED_TARGET ncursesw)
