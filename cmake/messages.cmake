# Message catalogues and locales, made in the build folder.

find_program(VRXUTIL_GENCAT gencat REQUIRED)
find_program(VRXUTIL_LOCALEDEF localedef REQUIRED)

# Debian has no locale of a language at first. LOCPATH=this folder finds these.
set(VRXUTIL_LOCALES "${PROJECT_BINARY_DIR}/locales")

# vrxutil_locale(NAME): LOCALES/NAME.UTF-8, from the host's sources, as in de_DE.
function(vrxutil_locale name)
  if(TARGET locale_${name})
    return()
  endif()
  set(locale "${VRXUTIL_LOCALES}/${name}.UTF-8")
  # What localedef leaves when it is interrupted may look complete: a stamp of
  # its own says that all files are there.
  set(stamp "${locale}.stamp")
  # --no-archive: else it would go to the host's own locales.
  add_custom_command(OUTPUT "${stamp}"
    COMMAND "${CMAKE_COMMAND}" -E make_directory "${VRXUTIL_LOCALES}"
    COMMAND "${VRXUTIL_LOCALEDEF}" --no-archive -i ${name} -f UTF-8 "${locale}"
    COMMAND "${CMAKE_COMMAND}" -E touch "${stamp}"
    COMMENT "Making the locale ${name}.UTF-8"
    VERBATIM)
  add_custom_target(locale_${name} DEPENDS "${stamp}")
endfunction()

# vrxutil_catalogue(TARGET NAME LANGUAGE...): LANGUAGE.UTF-8/NAME.cat for each in
# the folder `catalogues` of the current build folder, from catalogues/LANGUAGE.msg
# beside the list file that calls, and the locales to choose them by.
#
# A source says "$ codeset=UTF-8", else what gencat takes depends on the locale of
# the build. NLSPATH=.../catalogues/%L/%N.cat finds them: NAME is opened, and %L is
# the name of the locale.
function(vrxutil_catalogue target name)
  foreach(language IN LISTS ARGN)
    set(folder "${CMAKE_CURRENT_BINARY_DIR}/catalogues/${language}.UTF-8")
    set(source "${CMAKE_CURRENT_LIST_DIR}/catalogues/${language}.msg")
    set(catalogue "${folder}/${name}.cat")
    # gencat would merge what is new into an old file.
    add_custom_command(OUTPUT "${catalogue}"
      COMMAND "${CMAKE_COMMAND}" -E make_directory "${folder}"
      COMMAND "${CMAKE_COMMAND}" -E rm -f "${catalogue}"
      COMMAND "${VRXUTIL_GENCAT}" "${catalogue}" "${source}"
      DEPENDS "${source}"
      COMMENT "Making the message catalogue ${language}/${name}"
      VERBATIM)
    target_sources(${target} PRIVATE "${catalogue}")
    vrxutil_locale(${language})
    add_dependencies(${target} locale_${language})
  endforeach()
endfunction()
