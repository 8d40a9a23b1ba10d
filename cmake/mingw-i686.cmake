# Cross-compiles for i686 Windows with Debian's mingw-w64.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(TAMRIK_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
