# libpq, the client library of PostgreSQL, for forwarding records to a database: on Linux
# Debian's libpq-dev (the shared library will do); for Windows a static one with a static OpenSSL
# below it, built once from Debian's sources and cached (scripts/libpq-windows.sh), found here by
# itself as cmake/mbedtls.cmake finds Mbed TLS. Target palimbo::pq.
add_library(palimbo::pq INTERFACE IMPORTED)
if(WIN32 AND CMAKE_CROSSCOMPILING)
  include(${CMAKE_CURRENT_LIST_DIR}/built_for_windows.cmake)
  palimbo_built_for_windows(PALIMBO_LIBPQ_PREFIX libpq-windows.sh
                            "libpq and OpenSSL built for Windows")
  # In the order the linker needs them: libpq's share of PostgreSQL's common code and ports, then
  # OpenSSL, then the Windows libraries these call: sockets, the security support provider,
  # certificate stores, and the last three, which the compiler adds anyway, named all the same.
  set(archives)
  foreach(library pq pgcommon_shlib pgport_shlib ssl crypto)
    list(APPEND archives ${PALIMBO_LIBPQ_PREFIX}/lib/lib${library}.a)
  endforeach()
  set_target_properties(palimbo::pq PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${PALIMBO_LIBPQ_PREFIX}/include
    INTERFACE_LINK_LIBRARIES "${archives};ws2_32;secur32;crypt32;advapi32;shell32;user32")
else()
  find_package(PostgreSQL REQUIRED)
  set_target_properties(palimbo::pq PROPERTIES INTERFACE_LINK_LIBRARIES PostgreSQL::PostgreSQL)
endif()
