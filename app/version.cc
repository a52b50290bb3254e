#include "app/version.h"

#include "version_text.h"

const std::string& versionText() {
  static const std::string text = DROVER_VERSION_TEXT;
  return text;
}
