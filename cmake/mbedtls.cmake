# Debian's Mbed TLS, for digests: the system's library on Linux; for Windows a static one built
# once from Debian's source and cached (scripts/mbedtls-windows.sh), found here by itself so that
# every Windows build (tests, window, packages) gets it the same way.
if(WIN32 AND CMAKE_CROSSCOMPILING)
  if(NOT PALIMBO_MBEDTLS_PREFIX)
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/mbedtls-windows.sh
                    OUTPUT_VARIABLE built RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "scripts/mbedtls-windows.sh failed (${status})")
    endif()
    string(REGEX REPLACE ".*\n([^\n]+)\n?$" "\\1" built "\n${built}")
    set(PALIMBO_MBEDTLS_PREFIX ${built} CACHE PATH "Mbed TLS built for Windows")
  endif()
  add_library(palimbo::mbedcrypto STATIC IMPORTED)
  set_target_properties(palimbo::mbedcrypto PROPERTIES
    IMPORTED_LOCATION ${PALIMBO_MBEDTLS_PREFIX}/lib/libmbedcrypto.a
    INTERFACE_INCLUDE_DIRECTORIES ${PALIMBO_MBEDTLS_PREFIX}/include)
else()
  find_path(PALIMBO_MBEDTLS_INCLUDE mbedtls/sha256.h REQUIRED)
  find_library(PALIMBO_MBEDCRYPTO mbedcrypto REQUIRED)
  add_library(palimbo::mbedcrypto UNKNOWN IMPORTED)
  set_target_properties(palimbo::mbedcrypto PROPERTIES
    IMPORTED_LOCATION ${PALIMBO_MBEDCRYPTO}
    INTERFACE_INCLUDE_DIRECTORIES ${PALIMBO_MBEDTLS_INCLUDE})
endif()
