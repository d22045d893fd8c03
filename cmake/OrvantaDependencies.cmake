# Third-party dependencies, all from Debian 12 packages.
find_package(Qt5 5.15 REQUIRED COMPONENTS Core Gui Network Multimedia Widgets Test)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavutil libswresample)
find_package(OrvantaOpenCV REQUIRED)
