# Flags of every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

# File offsets and times keep 64 bits on 32-bit machines; plain char has the same sign everywhere.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
link_libraries(Threads::Threads)

if(TARVIK_SANITIZE)
  add_compile_options(-fsanitize=${TARVIK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARVIK_SANITIZE})
endif()
