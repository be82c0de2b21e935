#include "server/base/xmlText.h"

#include <expat.h>
#include <fmt/format.h>
#include <malloc.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "server/base/errors.h"
#include "server/base/htmlCharacters.h"

namespace corvaned {
namespace {

constexpr std::size_t kMaxDepth = 10000;
// The parser goes through all of them at each element of their type.
constexpr std::size_t kMaxDefaults = 100;
// What the parser may take, for names above all: so much, and so often the document's size.
constexpr std::size_t kFreeMemory = std::size_t{1} << 20U;
constexpr std::size_t kMemoryPerByte = 8;
// The parser counts bytes in an int.
constexpr std::size_t kSlice = std::size_t{1} << 30U;

// What the parser of this thread has taken and may take. It passes nothing on to these functions.
thread_local std::size_t taken = 0;
thread_local std::size_t most = 0;

void release(void* memory) {
  if (memory) taken -= ::malloc_usable_size(memory);
  std::free(memory);
}

void* reallocate(void* memory, std::size_t size) {
  const std::size_t before = memory ? ::malloc_usable_size(memory) : 0;
  if (taken - before + size > most) return nullptr;
  void* const result = std::realloc(memory, size);
  if (result) taken = taken - before + ::malloc_usable_size(result);
  return result;
}

void* allocate(std::size_t size) { return reallocate(nullptr, size); }

// As UTF-16 begins. The parser would read it so, whatever encoding it is told, and return more text
// than there are bytes.
bool isWide(std::string_view xml) {
  return xml.starts_with("\xFE\xFF") || xml.starts_with("\xFF\xFE") ||
         xml.substr(0, 2).find('\0') != std::string_view::npos;
}

struct FreeParser {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<XML_ParserStruct, FreeParser>;

/// Gathers the text. No function throws, because the parser could not pass that on: the text is
/// never longer than the document, so its memory is there from the start.
class XmlReader {
 public:
  explicit XmlReader(std::string_view xml) : xml_(xml) {
    text_.reserve(xml.size());
    taken = 0;
    most = kFreeMemory + kMemoryPerByte * xml.size();
    constexpr XML_Memory_Handling_Suite kMemory{allocate, reallocate, release};
    parser_.reset(XML_ParserCreate_MM("UTF-8", &kMemory, nullptr));
    if (!parser_) throw std::bad_alloc();
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), onStart, onEnd);
    XML_SetCharacterDataHandler(parser_.get(), onText);
    XML_SetEntityDeclHandler(parser_.get(), onEntity);
    XML_SetAttlistDeclHandler(parser_.get(), onAttribute);
    XML_SetSkippedEntityHandler(parser_.get(), onSkipped);
  }

  std::string text() {
    if (isWide(xml_)) {
      reason_ = "it begins as text in UTF-16 does, and must be in UTF-8";
      refuse();
    }
    for (bool last = false; !last;) {
      const std::string_view slice = xml_.substr(0, kSlice);
      xml_.remove_prefix(slice.size());
      last = xml_.empty();
      if (XML_Parse(parser_.get(), slice.data(), static_cast<int>(slice.size()), last) ==
          XML_STATUS_ERROR) {
        refuse();
      }
    }
    return std::move(text_);
  }

 private:
  static XmlReader& of(void* reader) { return *static_cast<XmlReader*>(reader); }

  static void onStart(void* reader, const XML_Char*, const XML_Char**) {
    of(reader).text_ += ' ';
    if (++of(reader).depth_ > kMaxDepth) of(reader).stop("its elements are nested too deep");
  }

  static void onEnd(void* reader, const XML_Char*) {
    of(reader).text_ += ' ';
    --of(reader).depth_;
  }

  static void onText(void* reader, const XML_Char* text, int length) {
    of(reader).text_.append(text, static_cast<std::size_t>(length));
  }

  static void onEntity(void* reader, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                       const XML_Char*, const XML_Char*, const XML_Char*) {
    of(reader).stop("it declares entities, which are not expanded");
  }

  static void onAttribute(void* reader, const XML_Char*, const XML_Char*, const XML_Char*,
                          const XML_Char* value, int) {
    if (!value || ++of(reader).defaults_ <= kMaxDefaults) return;
    of(reader).stop("it declares too many attributes with a default value");
  }

  // One that the document's own type, which is not loaded, may declare. XHTML has those of HTML.
  static void onSkipped(void* reader, const XML_Char* name, int isParameter) {
    if (isParameter != 0) return;
    const auto character = htmlCharacter(name);
    if (!character) return of(reader).stop("it refers to an unknown entity");
    std::array<std::uint8_t, U8_MAX_LENGTH> bytes{};
    std::int32_t size = 0;
    U8_APPEND_UNSAFE(bytes.data(), size, *character);
    of(reader).text_.append(reinterpret_cast<const char*>(bytes.data()),
                            static_cast<std::size_t>(size));
  }

  void stop(const char* reason) {
    if (!reason_) reason_ = reason;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  [[noreturn]] void refuse() const {
    const XML_Error error = XML_GetErrorCode(parser_.get());
    std::string reason = reason_ ? reason_ : XML_ErrorString(error);
    if (error == XML_ERROR_NO_MEMORY) reason = "it takes too much memory for its size";
    throw ServerError(
        ErrorKind::BadDocument,
        fmt::format("the document is no XML that can be read: {}, at line {}, column {}", reason,
                    XML_GetCurrentLineNumber(parser_.get()),
                    XML_GetCurrentColumnNumber(parser_.get()) + 1));
  }

  std::string_view xml_;
  std::string text_;
  std::size_t depth_ = 0;
  std::size_t defaults_ = 0;
  const char* reason_ = nullptr;
  Parser parser_;
};

}  // namespace

std::string textOfXml(std::string_view xml) { return XmlReader(xml).text(); }

}  // namespace corvaned
