// One line or a few for each file, for other programs.
#pragma once

#include <string>

#include "inventory/inventory.h"

namespace orvexscan {

// What sha256sum prints, so that sha256sum -c reads it; empty without an answer.
std::string Sha256sumLine(const FileRecord& record);

// The column names, and the line of one file, quoted where needed.
std::string CsvHeader(const DigestChoice& digests);
std::string CsvLine(const FileRecord& record, const DigestChoice& digests);

}  // namespace orvexscan
