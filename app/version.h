// The build's version text. Used by the program entry only.
#pragma once

#include <string>

/// 27 characters: build date, 7 hex digits of the source revision, 8 hex digits of the tree state.
const std::string& versionText();
