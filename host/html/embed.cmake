# Makes the C++ source of the HTML report's page (see HtmlPage.h): puts the style sheet and
# the script into the page template and splits it where the reports go.
# Run as: cmake -DSOURCE_DIR=<host/html> -DOUTPUT=<file.cpp> -P embed.cmake
file(READ "${SOURCE_DIR}/report.html" page)
file(READ "${SOURCE_DIR}/report.css" style)
file(READ "${SOURCE_DIR}/report.js" script)

foreach(placeholder "/*@report.css@*/" "/*@report.js@*/" "<!--@reports@-->")
  string(FIND "${page}" "${placeholder}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "report.html lacks the placeholder ${placeholder}")
  endif()
endforeach()
string(REPLACE "/*@report.css@*/" "${style}" page "${page}")
string(REPLACE "/*@report.js@*/" "${script}" page "${page}")

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

file(WRITE "${OUTPUT}" "// Made by host/html/embed.cmake from report.html, report.css and report.js.\n"
  "#include \"HtmlPage.h\"\n\n"
  "const char HtmlPageHead[] = R\"page(${head})page\";\n\n"
  "const char HtmlPageTail[] = R\"page(${tail})page\";\n")
