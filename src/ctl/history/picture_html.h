// The picture of a timeline as a page of HTML: one file with inline SVG and style, without scripts
// and without anything to fetch.
#pragma once

#include <string>

#include "picture.h"

// Whatever bytes the texts of the picture hold, the page is UTF-8 and shows them as text.
std::string html_of(const Picture& picture);
