// Content types of items: the MIME type from shared-mime-info (through GIO),
// the system's type identifier for it ("public.folder", "com.adobe.pdf",
// "public.plain-text", ...; the MIME type itself where the system has no
// identifier), and the type's description in the service's language, read
// from the shared-mime-info database ("PDF document", "PDF 文档").
#pragma once

#include <string>
#include <string_view>

#include "common/language.h"

namespace quorvi {

inline constexpr const char* kFolderTypeIdentifier = "public.folder";

// The MIME type of a file by its name alone ("application/octet-stream" when
// the name tells nothing). Cheap: no file is opened.
std::string mimeTypeOfName(std::string_view fileName);
// The MIME type of a file by its name and its first bytes (`sample`, may be
// empty), for a single file whose kind is shown to the user.
std::string mimeTypeOfFile(std::string_view fileName, std::string_view sample);

// The system's identifier for a MIME type, or the MIME type itself.
std::string typeIdentifierOfMimeType(const std::string& mimeType);
// The identifier of an item: "public.folder" for folders, else from the name.
std::string contentTypeIdentifier(std::string_view path, bool isDirectory);

// The description of the MIME type in the language: the shared-mime-info
// comment for zh_CN (chinese) or zh_TW (traditionChinese), else English.
// Falls back to GIO's description, then to the MIME type.
std::string mimeTypeDescription(const std::string& mimeType, SupportedLanguage language);

}  // namespace quorvi
