#pragma once

#include <sys/stat.h>

#include <string>

#include "attribute.h"

// The attribute table for whoever has looked at the file already (attribute.h for the rest).
namespace NEUtils::Monitor {

Attribute AttributeOf(const struct stat& status);
void RecordAttribute(const std::string& path, const Attribute& attr);
bool UpdateAttrAndLog(const std::string& path, const Attribute& attr, std::string& text);

}  // namespace NEUtils::Monitor
