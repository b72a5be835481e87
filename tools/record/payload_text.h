// Payload bytes as a person reads them, the same in the transcript and the HTML report: text
// where it is text, a classic hex dump where it is not.
#pragma once

#include <string>

namespace talvex {

// Printable ASCII with line ends and tabs: shown as text.
bool isPrintableText(const std::string& bytes);

// Bytes as UTF-8 text, for documents that must be Unicode (JSON): as they are where they are
// UTF-8, else each byte read as ISO-8859-1, HTTP's historical charset for header values.
std::string textAsUtf8(const std::string& bytes);
// The same as a JSON string.
std::string jsonText(const std::string& bytes);

// Sixteen bytes a line: "0000  47 45 54 ...  |GET / HTTP/1.1..|", each line begun by `indent`
// and ended by a line feed.
std::string hexDump(const std::string& bytes, const std::string& indent);

}  // namespace talvex
