# Everything comes from the distribution's packages; docs/decisions.md gives the reason for each.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(fmt REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(EXPAT REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(dbus REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(kmod REQUIRED IMPORTED_TARGET libkmod)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(ZLIB REQUIRED)
find_package(CLI11 REQUIRED)
# An oracle for tests; no product code uses it.
pkg_check_modules(libplist REQUIRED IMPORTED_TARGET libplist-2.0)
