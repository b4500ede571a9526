# Debian's Mbed TLS, for digests and for secured network ports, linked in statically so that a
# start loads no shared library for it: on Linux the archives of libmbedtls-dev; for Windows
# ones built once from Debian's source and cached (scripts/mbedtls-windows.sh), found here by
# themselves so that every Windows build (tests, window, packages) gets them the same way.
# Targets palimbo::mbedcrypto and palimbo::mbedtls.
if(WIN32 AND CMAKE_CROSSCOMPILING)
  include(${CMAKE_CURRENT_LIST_DIR}/built_for_windows.cmake)
  palimbo_built_for_windows(PALIMBO_MBEDTLS_PREFIX mbedtls-windows.sh "Mbed TLS built for Windows")
  set(mbedtls_include ${PALIMBO_MBEDTLS_PREFIX}/include)
  foreach(library mbedcrypto mbedx509 mbedtls)
    set(mbedtls_${library} ${PALIMBO_MBEDTLS_PREFIX}/lib/lib${library}.a)
  endforeach()
else()
  find_path(mbedtls_include mbedtls/ssl.h REQUIRED)
  foreach(library mbedcrypto mbedx509 mbedtls)
    find_library(mbedtls_${library}_archive NAMES lib${library}.a REQUIRED)
    set(mbedtls_${library} ${mbedtls_${library}_archive})
  endforeach()
endif()
add_library(palimbo::mbedcrypto STATIC IMPORTED)
set_target_properties(palimbo::mbedcrypto PROPERTIES
  IMPORTED_LOCATION ${mbedtls_mbedcrypto} INTERFACE_INCLUDE_DIRECTORIES ${mbedtls_include})
add_library(palimbo::mbedx509 STATIC IMPORTED)
set_target_properties(palimbo::mbedx509 PROPERTIES
  IMPORTED_LOCATION ${mbedtls_mbedx509} INTERFACE_LINK_LIBRARIES palimbo::mbedcrypto)
add_library(palimbo::mbedtls STATIC IMPORTED)
set_target_properties(palimbo::mbedtls PROPERTIES
  IMPORTED_LOCATION ${mbedtls_mbedtls} INTERFACE_LINK_LIBRARIES palimbo::mbedx509)
