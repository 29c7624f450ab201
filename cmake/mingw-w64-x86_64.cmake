# Cross-compiles for 64-bit Windows with Debian's MinGW-w64 compilers (the posix thread model,
# which std::thread and std::mutex need). ZENTRIX_WINDOWS_SDK names the folder that holds the
# Windows builds of Qt, OpenSSL, libpq and GoogleTest made by scripts/windows-sdk.sh.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZENTRIX_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZENTRIX_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZENTRIX_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${ZENTRIX_MINGW_TRIPLET}-windres)

# try_compile runs in a fresh project that sees only the environment, so the SDK travels there too.
if(NOT ZENTRIX_WINDOWS_SDK AND DEFINED ENV{ZENTRIX_WINDOWS_SDK})
  set(ZENTRIX_WINDOWS_SDK $ENV{ZENTRIX_WINDOWS_SDK})
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZENTRIX_WINDOWS_SDK)

set(CMAKE_FIND_ROOT_PATH /usr/${ZENTRIX_MINGW_TRIPLET} ${ZENTRIX_WINDOWS_SDK})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Qt's code generators (moc, rcc) are the build machine's, of the same Qt version.
# Debian keeps their CMake packages under the multiarch folder, which a Windows target's search
# does not look into.
if(NOT QT_HOST_PATH)
  set(QT_HOST_PATH /usr)
endif()
if(NOT QT_HOST_PATH_CMAKE_DIR)
  set(QT_HOST_PATH_CMAKE_DIR ${QT_HOST_PATH}/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/cmake)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QT_HOST_PATH QT_HOST_PATH_CMAKE_DIR)
