#pragma once

// The page of the HTML report, made at build time from the files in host/html/: the text
// before the reports and the text after them.
extern const char HtmlPageHead[];
extern const char HtmlPageTail[];
