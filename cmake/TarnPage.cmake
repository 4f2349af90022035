# tarn_page(OUTPUT TEMPLATE FOLDERS folder... [DEPENDS input...]): a page that needs no other file. Each `@include NAME@`
# of the template becomes the file NAME of the first folder that has it. Runs itself as a script when the page is built.
if(CMAKE_SCRIPT_MODE_FILE)
  function(read_whole path result)
    file(READ "${path}" text)
    string(REGEX MATCHALL "@include [A-Za-z_.]+@" includes "${text}")
    foreach(include IN LISTS includes)
      string(REGEX REPLACE "@include (.*)@" "\\1" name "${include}")
      unset(found CACHE)
      find_file(found "${name}" PATHS ${FOLDERS} NO_DEFAULT_PATH REQUIRED)
      read_whole("${found}" contents)
      string(REPLACE "${include}" "${contents}" text "${text}")
    endforeach()
    set(${result} "${text}" PARENT_SCOPE)
  endfunction()
  read_whole("${TEMPLATE}" page)
  file(WRITE "${OUTPUT}" "${page}")
  return()
endif()

set(tarn_page_script "${CMAKE_CURRENT_LIST_FILE}")
function(tarn_page output template)
  cmake_parse_arguments(PARSE_ARGV 2 page "" "" "FOLDERS;DEPENDS")
  set(inputs ${page_DEPENDS})
  foreach(folder IN LISTS page_FOLDERS)
    file(GLOB files CONFIGURE_DEPENDS "${folder}/*.js" "${folder}/*.css" "${folder}/*.html")
    list(REMOVE_ITEM files "${output}")
    list(APPEND inputs ${files})
  endforeach()
  add_custom_command(
    OUTPUT "${output}"
    COMMAND "${CMAKE_COMMAND}" "-DOUTPUT=${output}" "-DTEMPLATE=${template}" "-DFOLDERS=${page_FOLDERS}" -P "${tarn_page_script}"
    DEPENDS "${template}" ${inputs} "${tarn_page_script}"
    VERBATIM)
endfunction()
