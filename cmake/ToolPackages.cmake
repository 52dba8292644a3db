# The libraries of what people run beside the service. Without one of them TARVIK_TOOLS is off, and
# everything but the service and the client library is left out.
if(NOT TARGET fmt::fmt)
  find_package(fmt QUIET)
endif()
find_package(CLI11 QUIET)
find_package(nlohmann_json QUIET)
find_path(ASIO_INCLUDE_DIR asio.hpp)
if(fmt_FOUND AND CLI11_FOUND AND nlohmann_json_FOUND AND ASIO_INCLUDE_DIR)
  set(TARVIK_TOOLS ON)
else()
  set(TARVIK_TOOLS OFF)
  message(WARNING "The tools are left out: fmt, CLI11, nlohmann-json or asio is missing. "
                  "scripts/setup installs them.")
endif()
