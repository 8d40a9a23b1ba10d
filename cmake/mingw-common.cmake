# What both mingw-w64 toolchain files share: the caller sets CMAKE_SYSTEM_PROCESSOR and
# TAMRIK_MINGW_TRIPLET first. Debian's win32 thread model: the driver needs no std::thread,
# so the module carries no threading runtime of its own.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${TAMRIK_MINGW_TRIPLET}-gcc-win32)
set(CMAKE_CXX_COMPILER ${TAMRIK_MINGW_TRIPLET}-g++-win32)
set(CMAKE_RC_COMPILER ${TAMRIK_MINGW_TRIPLET}-windres)
set(TAMRIK_WIDL ${TAMRIK_MINGW_TRIPLET}-widl)
set(CMAKE_FIND_ROOT_PATH /usr/${TAMRIK_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
