# Makes the C++ source of the HTML report's page (see HtmlPage.h): puts the style sheet and
# the script into the page template and splits it where the reports go.
#
# The script is the page's ES modules joined into one, so that the page loads nothing:
# from main.js on, each module comes after the modules it imports (depth first, in the order
# of its import lines), without its import lines and without the word export, all in one
# function scope. So modules import on one line each ("import { a } from './a.js';" or
# "import './a.js';"), import in no circle, export no default, and declare no name at their
# top level that another module declares.
# Run as: cmake -DSOURCE_DIR=<host/html> -DOUTPUT=<file.cpp> -P embed.cmake
cmake_minimum_required(VERSION 3.21)

# Adds the module at path to the global list "modules", after those it imports.
function(add_module path)
  get_property(modules GLOBAL PROPERTY modules)
  if(path IN_LIST modules)
    return()
  endif()
  get_property(entered GLOBAL PROPERTY entered)
  if(path IN_LIST entered)
    message(FATAL_ERROR "${path} imports itself through other modules")
  endif()
  set_property(GLOBAL APPEND PROPERTY entered "${path}")
  file(READ "${path}" text)
  # Without its semicolon, which would split the list.
  string(REGEX MATCHALL "\nimport [^\n;]*" imports "\n${text}")
  get_filename_component(directory "${path}" DIRECTORY)
  foreach(line IN LISTS imports)
    if(NOT line MATCHES "^\nimport ([^'\n]* from )?'(\\.[^'\n]*)'$")
      message(FATAL_ERROR "${path}: an import the page cannot join:${line}")
    endif()
    get_filename_component(imported "${directory}/${CMAKE_MATCH_2}" ABSOLUTE)
    add_module("${imported}")
  endforeach()
  set_property(GLOBAL APPEND PROPERTY modules "${path}")
endfunction()

add_module("${SOURCE_DIR}/main.js")
get_property(modules GLOBAL PROPERTY modules)
set(script "'use strict';\n(function () {\n")
set(declared "")
foreach(path IN LISTS modules)
  file(READ "${path}" text)
  string(REGEX REPLACE "\nimport [^\n]*" "" text "\n${text}")
  string(REGEX REPLACE "\nexport " "\n" text "${text}")
  string(REGEX MATCHALL "\n(async )?(function\\*?|class|const|let|var) [A-Za-z0-9_$]+" names "${text}")
  foreach(name IN LISTS names)
    string(REGEX REPLACE ".* " "" name "${name}")
    if(name IN_LIST declared)
      message(FATAL_ERROR "${path} declares ${name}, which another module declares")
    endif()
    list(APPEND declared "${name}")
  endforeach()
  file(RELATIVE_PATH name "${SOURCE_DIR}" "${path}")
  string(APPEND script "// ---- ${name} ----${text}\n")
endforeach()
string(APPEND script "})();")

file(READ "${SOURCE_DIR}/report.html" page)
file(READ "${SOURCE_DIR}/report.css" style)

foreach(placeholder "/*@report.css@*/" "/*@script@*/" "<!--@reports@-->")
  string(FIND "${page}" "${placeholder}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "report.html lacks the placeholder ${placeholder}")
  endif()
endforeach()
string(REPLACE "/*@report.css@*/" "${style}" page "${page}")
string(REPLACE "/*@script@*/" "${script}" page "${page}")

set(marker "<!--@reports@-->")
string(FIND "${page}" "${marker}" at)
string(LENGTH "${marker}" markerLength)
math(EXPR tailAt "${at} + ${markerLength}")
string(SUBSTRING "${page}" 0 ${at} head)
string(SUBSTRING "${page}" ${tailAt} -1 tail)

# The texts go into raw string literals, which end at the first )page".
string(FIND "${page}" ")page\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "the page contains )page\", which ends its string literal")
endif()

file(WRITE "${OUTPUT}" "// Made by host/html/embed.cmake from report.html, report.css and the modules of the\n"
  "// script.\n"
  "#include \"HtmlPage.h\"\n\n"
  "const char HtmlPageHead[] = R\"page(${head})page\";\n\n"
  "const char HtmlPageTail[] = R\"page(${tail})page\";\n")
