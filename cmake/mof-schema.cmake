# Generates the module's two MOF resources from its one schema text
# (src/module/res/OVSvc.mof) into OUT_DIR:
#   schema_215.mof   the text as it stands (systems from version 5.1 on)
#   schema_114.mof   without the lines marked "only from 5.1"
#   mof_schema.inc   both as C++ text, for the embedded platform
# Runs at configure time; a change of the text re-runs the configuration.
function(ovsvc_generate_mof_schema SOURCE OUT_DIR)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${SOURCE})
  file(READ ${SOURCE} modern)
  string(REGEX REPLACE "[^\n]*// only from 5\\.1[^\n]*\n" "" legacy "${modern}")
  if(modern MATCHES "\\)OVMOF\"")
    message(FATAL_ERROR "${SOURCE}: the text may not contain )OVMOF\"")
  endif()
  set(inc "// Generated from OVSvc.mof by the build: do not edit.\n")
  string(APPEND inc "{u\"#114\", R\"OVMOF(${legacy})OVMOF\"},\n")
  string(APPEND inc "{u\"#215\", R\"OVMOF(${modern})OVMOF\"},\n")
  foreach(pair "schema_215.mof;modern" "schema_114.mof;legacy" "mof_schema.inc;inc")
    list(GET pair 0 file)
    list(GET pair 1 var)
    file(CONFIGURE OUTPUT ${OUT_DIR}/${file} CONTENT "${${var}}" @ONLY)
  endforeach()
endfunction()
