# A statically linked Qt brings no plugins by itself: a Windows program of the window imports
# the platform plugins and the native style. The offscreen platform is there for runs without
# a desktop.
function(palimbo_import_windows_plugins target)
  get_target_property(qt_type Qt6::Core TYPE)
  if(qt_type STREQUAL "STATIC_LIBRARY")
    qt_import_plugins(${target}
      INCLUDE Qt6::QWindowsIntegrationPlugin Qt6::QOffscreenIntegrationPlugin
              Qt6::QWindowsVistaStylePlugin
      EXCLUDE_BY_TYPE imageformats)
  endif()
endfunction()
