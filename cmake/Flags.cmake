# Flags of every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
elseif(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # With -O3 gcc 12 warns about its own operator+ of strings.
  add_compile_options($<$<CONFIG:Release>:-Wno-restrict>)
endif()

# File offsets and times keep 64 bits on 32-bit machines; plain char has the same sign everywhere.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

# Hardening, for whatever reaches past the checks: addresses that cannot be guessed, tables that cannot
# be written, and an end of the process where the stack or a buffer was overrun.
if(NOT TARVIK_STATIC)  # that one asks the linker itself
  include(CheckPIESupported)
  check_pie_supported()
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_compile_options(-fstack-protector-strong -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  add_compile_options(-fcf-protection)
endif()
add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
if(NOT TARVIK_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")  # needs an optimised build
  # In this order, and so both as options: definitions come first on the command line, and some
  # compilers define it themselves.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
link_libraries(Threads::Threads)

if(TARVIK_SANITIZE)
  add_compile_options(-fsanitize=${TARVIK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARVIK_SANITIZE})
endif()
