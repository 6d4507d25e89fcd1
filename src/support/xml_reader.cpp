#include "support/xml_reader.h"

#include <array>
#include <cctype>
#include <new>

namespace tpcsdk {
namespace {

// Character classes, one flag byte for each byte value.
enum : uint8_t {
  kSpace = 0x01,
  kNameStart = 0x02,
  kNameChar = 0x04,
  kDigit = 0x08,
  kHexDigit = 0x10,
};

constexpr std::array<uint8_t, 256> MakeCharTable() {
  std::array<uint8_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    uint8_t f = 0;
    bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    bool digit = c >= '0' && c <= '9';
    bool high = c >= 0x80 && c <= 0xFD;
    if (c <= 0x20 || c == 0xFE || c == 0xFF) f |= kSpace;
    if (c == ':' || c == '_' || letter || high) f |= kNameStart;
    if (c == '-' || c == '.' || c == '_' || digit || letter || high) f |= kNameChar;
    if (digit) f |= kDigit;
    if (digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) f |= kHexDigit;
    t[static_cast<size_t>(c)] = f;
  }
  return t;
}

constexpr std::array<uint8_t, 256> kCharTable = MakeCharTable();

inline bool Is(uint8_t c, uint8_t cls) { return (kCharTable[c] & cls) != 0; }

// Appends one code point as UTF-16; a code point beyond the Unicode range is dropped.
void AppendCodePoint(std::u16string& out, uint32_t cp) {
  if (cp > 0x10FFFF) return;
  if (cp > 0xFFFF) {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(cp));
  }
}

// A byte-at-a-time UTF-8 decoder. Lead bytes start sequences of one to six bytes;
// a stray continuation byte is dropped, and a new lead byte abandons an unfinished
// sequence. The bytes 0xFE and 0xFF start nothing.
class Utf8Decoder {
 public:
  void Feed(uint8_t b, std::u16string& out) {
    if (b < 0x80) {
      pending_ = 0;
      out.push_back(b);
    } else if (b < 0xC0) {
      if (pending_ == 0) return;
      code_ = (code_ << 6) | (b & 0x3Fu);
      if (--pending_ == 0) AppendCodePoint(out, code_);
    } else if (b < 0xE0) {
      Start(b & 0x1Fu, 1);
    } else if (b < 0xF0) {
      Start(b & 0x0Fu, 2);
    } else if (b < 0xF8) {
      Start(b & 0x07u, 3);
    } else if (b < 0xFC) {
      Start(b & 0x03u, 4);
    } else if (b < 0xFE) {
      Start(b & 0x01u, 5);
    } else {
      pending_ = 0;
    }
  }
  void Reset() { pending_ = 0; }

 private:
  void Start(uint32_t bits, int follow) {
    code_ = bits;
    pending_ = follow;
  }
  uint32_t code_ = 0;
  int pending_ = 0;
};

// Removes blank, tab, carriage return and line feed from the end of a run.
void TrimRunEnd(std::u16string& s) {
  size_t n = s.size();
  while (n > 0 && (s[n - 1] == u' ' || s[n - 1] == u'\t' || s[n - 1] == u'\r' || s[n - 1] == u'\n'))
    --n;
  s.resize(n);
}

// The reader's data source: one memory block, handed out whole. The parser keeps
// the block's address, size and offset in the stream, and its position is an index
// into the block.
class CXML_DataBufAcc {
 public:
  CXML_DataBufAcc(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  // Hands out the next block; false when the stream has no more.
  bool ReadNextBlock(const uint8_t*& block, size_t& size, size_t& offset) {
    if (done_) return false;
    done_ = true;
    block = data_;
    size = size_;
    offset = 0;
    return true;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  bool done_ = false;
};

class XmlParser {
 public:
  XmlParser(CXML_DataBufAcc& source, bool save_spaces, bool keep_entities)
      : save_spaces_(save_spaces), keep_entities_(keep_entities) {
    size_t offset = 0;  // one block, so the stream starts at its beginning
    if (!source.ReadNextBlock(block_, size_, offset)) {
      block_ = nullptr;
      size_ = 0;
    }
  }

  std::unique_ptr<XmlElement> ReadRoot() { return ReadElement(nullptr, false); }

 private:
  enum class Tag { kNone, kStart, kEnd };

  // Holds the depth for one level of element reading.
  struct DepthGuard {
    explicit DepthGuard(int& d) : depth(d) { ++depth; }
    ~DepthGuard() { --depth; }
    int& depth;
  };

  bool More() const { return pos_ < size_; }
  uint8_t Peek() const { return block_[pos_]; }

  void SkipWhiteSpace() {
    while (More() && Is(Peek(), kSpace)) ++pos_;
  }

  // Moves past the next occurrence of pat, or to the end of the data.
  void SkipPast(std::string_view pat) {
    size_t at = Find(pat, pos_);
    pos_ = at == std::string_view::npos ? size_ : at + pat.size();
  }

  size_t Find(std::string_view pat, size_t from) const {
    std::string_view all(reinterpret_cast<const char*>(block_), size_);
    return from >= size_ ? std::string_view::npos : all.find(pat, from);
  }

  // Reads a name; the last ":" splits it into name space (all before it) and local
  // name (all after it). The first byte that isn't part of a name ends it and stays
  // unread.
  void ReadName(std::string& space, std::string& name) {
    space.clear();
    name.clear();
    size_t start = pos_;
    size_t colon = std::string::npos;
    while (More() && Is(Peek(), kNameStart | kNameChar)) {
      if (Peek() == ':') colon = pos_;
      ++pos_;
    }
    const char* p = reinterpret_cast<const char*>(block_);
    if (colon == std::string::npos) {
      name.assign(p + start, pos_ - start);
    } else {
      space.assign(p + start, colon - start);
      name.assign(p + colon + 1, pos_ - colon - 1);
    }
  }

  // Finds the next tag, passing over processing instructions and comments and
  // anything else before it.
  Tag FindTag(std::string& space, std::string& name) {
    for (;;) {
      while (More() && Peek() != '<') ++pos_;
      if (!More()) return Tag::kNone;
      ++pos_;
      if (!More()) return Tag::kNone;
      uint8_t c = Peek();
      if (c == '?') {
        ++pos_;
        SkipPast("?>");
        continue;
      }
      if (c == '!') {
        ++pos_;
        SkipPast("-->");
        continue;
      }
      if (c == '/') {
        ++pos_;
        ReadName(space, name);
        return Tag::kEnd;
      }
      ReadName(space, name);
      return Tag::kStart;
    }
  }

  // Reads an entity; the position is just after its "&". Numeric forms pass over
  // bytes that aren't digits of their base and wrap in 32 bits; only a lower-case
  // "x" makes the number hexadecimal. An unknown name is 0. A missing ";" runs to
  // the end of the data.
  uint32_t ReadEntity() {
    if (More() && Peek() == '#') {
      ++pos_;
      bool hex = More() && Peek() == 'x';
      if (hex) ++pos_;
      uint32_t value = 0;
      for (; More() && Peek() != ';'; ++pos_) {
        uint8_t c = Peek();
        if (hex && Is(c, kHexDigit)) {
          uint32_t d = Is(c, kDigit) ? c - '0' : (c | 0x20u) - 'a' + 10;
          value = value * 16u + d;
        } else if (!hex && Is(c, kDigit)) {
          value = value * 10u + (c - '0');
        }
      }
      if (More()) ++pos_;
      return value;
    }
    size_t start = pos_;
    while (More() && Peek() != ';') ++pos_;
    std::string_view ent(reinterpret_cast<const char*>(block_) + start, pos_ - start);
    if (More()) ++pos_;
    if (ent == "gt") return 0x3E;
    if (ent == "lt") return 0x3C;
    if (ent == "amp") return 0x26;
    if (ent == "apos") return 0x27;
    if (ent == "quot") return 0x22;
    return 0;
  }

  // Reads a quoted attribute value. Without an opening quote the value is empty
  // and the position stays.
  void ReadAttrValue(std::u16string& out) {
    out.clear();
    if (!More()) return;
    uint8_t quote = Peek();
    if (quote != '"' && quote != '\'') return;
    ++pos_;
    Utf8Decoder dec;
    while (More() && Peek() != quote) {
      if (Peek() == '&') {
        ++pos_;
        AppendCodePoint(out, ReadEntity());
      } else if (Peek() < 0x80) {
        // Plain ASCII up to the quote or an entity goes in without the decoder.
        dec.Reset();
        size_t end = pos_;
        while (end < size_ && block_[end] < 0x80 && block_[end] != quote && block_[end] != '&') ++end;
        out.append(block_ + pos_, block_ + end);
        pos_ = end;
      } else {
        dec.Feed(Peek(), out);
        ++pos_;
      }
    }
    if (More()) ++pos_;
  }

  // Adds the text collected so far as a run of el, trimmed at its end unless
  // spaces are saved, and starts a new run.
  void FlushText(XmlElement& el, std::u16string& text, Utf8Decoder& dec) {
    dec.Reset();
    if (!save_spaces_) TrimRunEnd(text);
    if (!text.empty()) {
      auto run = std::make_unique<XmlContent>();
      run->text = std::move(text);
      el.AppendContent(std::move(run));
    }
    text.clear();
  }

  // Reads one element and everything in it. With tag_open the "<" of its start
  // tag has been consumed and the name begins at the position.
  std::unique_ptr<XmlElement> ReadElement(XmlElement* parent, bool tag_open) {
    DepthGuard guard(depth_);
    if (depth_ > kXmlMaxDepth) return nullptr;

    std::string space, name;
    Tag tag = Tag::kStart;
    if (tag_open)
      ReadName(space, name);
    else
      tag = FindTag(space, name);
    if (tag != Tag::kStart || name.empty()) return nullptr;

    auto el = std::make_unique<XmlElement>(parent, std::move(space), std::move(name));
    SkipWhiteSpace();
    std::string aspace, aname;
    std::u16string value;
    while (More() && Is(Peek(), kNameStart)) {
      ReadName(aspace, aname);
      SkipWhiteSpace();
      if (!More() || Peek() != '=') break;
      ++pos_;
      SkipWhiteSpace();
      ReadAttrValue(value);
      el->SetAttr(aspace, aname, value);
      SkipWhiteSpace();
    }
    if (!More()) return el;  // the data ended inside the start tag
    uint8_t c = Peek();
    ++pos_;
    if (c == '/') {
      SkipPast(">");
      return el;
    }
    if (c != '>') return nullptr;
    if (!save_spaces_) SkipWhiteSpace();
    ReadContent(*el);
    return el;
  }

  void ReadContent(XmlElement& el) {
    std::u16string text;
    Utf8Decoder dec;
    while (More()) {
      uint8_t c = Peek();
      if (c == '&' && !keep_entities_) {
        ++pos_;
        AppendCodePoint(text, ReadEntity());
        continue;
      }
      if (c != '<') {
        dec.Feed(c, text);
        ++pos_;
        // Plain ASCII up to the next markup byte goes in without the decoder.
        if (c < 0x80) {
          size_t end = pos_;
          while (end < size_ && block_[end] < 0x80 && block_[end] != '<' && block_[end] != '&') ++end;
          text.append(block_ + pos_, block_ + end);
          pos_ = end;
        }
        continue;
      }
      ++pos_;
      if (!More()) break;
      c = Peek();
      if (c == '?') {
        ++pos_;
        SkipPast("?>");
        SkipWhiteSpace();
      } else if (c == '!') {
        ++pos_;
        if (More() && Peek() == '[') {
          ++pos_;
          FlushText(el, text, dec);
          ReadCData(el);
        } else if (More() && Peek() == '-') {
          SkipPast("-->");
        } else {
          SkipPast(">");
        }
      } else if (c == '/') {
        // The end tag's name is read and not compared with the start tag's.
        ++pos_;
        std::string space, name;
        ReadName(space, name);
        SkipPast(">");
        FlushText(el, text, dec);
        return;
      } else {
        FlushText(el, text, dec);
        auto child = ReadElement(&el, true);
        if (child) el.AppendChild(std::move(child));
      }
    }
    FlushText(el, text, dec);
  }

  // The position is after "<![". The six bytes that follow (normally "CDATA[") are
  // passed over unchecked, and the bytes from there to "]]>" are the section's
  // text. An unclosed section runs to the end of the data.
  void ReadCData(XmlElement& el) {
    size_t start = pos_;
    size_t end = Find("]]>", start);
    pos_ = end == std::string_view::npos ? size_ : end + 3;
    if (end == std::string_view::npos) end = size_;
    if (end <= start + 6) return;
    auto run = std::make_unique<XmlContent>();
    run->cdata = true;
    Utf8Decoder dec;
    for (size_t i = start + 6; i < end; ++i) dec.Feed(block_[i], run->text);
    el.AppendContent(std::move(run));
  }

  const uint8_t* block_ = nullptr;
  size_t size_ = 0;
  size_t pos_ = 0;
  int depth_ = 0;
  bool save_spaces_;
  bool keep_entities_;
};

}  // namespace

XmlElement::XmlElement(XmlElement* parent, std::string space, std::string name)
    : parent_(parent), space_(std::move(space)), name_(std::move(name)) {}

XmlElement::~XmlElement() = default;

XmlElement::ContentKind XmlElement::GetChildKind(size_t index) const {
  return index < content_.size() && content_[index].index() == 0 ? kElement : kText;
}

XmlElement* XmlElement::GetElement(size_t index) const {
  if (index >= content_.size()) return nullptr;
  auto* e = std::get_if<std::unique_ptr<XmlElement>>(&content_[index]);
  return e ? e->get() : nullptr;
}

const XmlContent* XmlElement::GetContent(size_t index) const {
  if (index >= content_.size()) return nullptr;
  auto* t = std::get_if<std::unique_ptr<XmlContent>>(&content_[index]);
  return t ? t->get() : nullptr;
}

const XmlAttribute* XmlElement::FindAttr(std::string_view qname) const {
  std::string_view space, name = qname;
  size_t colon = qname.rfind(':');
  if (colon != std::string_view::npos) {
    space = qname.substr(0, colon);
    name = qname.substr(colon + 1);
  }
  for (const auto& a : attrs_)
    if (a.name == name && a.space == space) return &a;
  return nullptr;
}

bool XmlElement::HasAttr(std::string_view qname) const { return FindAttr(qname) != nullptr; }

bool XmlElement::GetAttrValue(std::string_view qname, std::u16string& out) const {
  const XmlAttribute* a = FindAttr(qname);
  if (!a) return false;
  out = a->value;
  return true;
}

void XmlElement::SetAttr(std::string space, std::string name, std::u16string value) {
  for (auto& a : attrs_) {
    if (a.name == name && a.space == space) {
      a.value = std::move(value);
      return;
    }
  }
  if (attrs_.empty()) attrs_.reserve(4);  // items usually carry a few attributes
  attrs_.push_back(XmlAttribute{std::move(space), std::move(name), std::move(value)});
}

void XmlElement::AppendChild(std::unique_ptr<XmlElement> child) {
  content_.emplace_back(std::move(child));
}

void XmlElement::AppendContent(std::unique_ptr<XmlContent> content) {
  content_.emplace_back(std::move(content));
}

bool IsXmlDocument(const void* data, size_t size) {
  if (!data || size == 0) return false;
  const auto* p = static_cast<const uint8_t*>(data);
  size_t i = 0;
  while (i < size && std::isspace(p[i])) ++i;
  if (i >= size) return false;
  auto at = [&](size_t k) { return i + k < size ? p[i + k] : -1; };
  if (p[i] == '<') return true;
  if (at(0) == 0xEF && at(1) == 0xBB && at(2) == 0xBF && at(3) == '<') return true;
  if (at(0) == 0xFE && at(1) == 0xFF && at(2) == '<') return true;
  if (at(0) == 0xFF && at(1) == 0xFE && at(2) == '<') return true;
  return false;
}

std::unique_ptr<XmlElement> ParseXmlBuffer(const void* data, size_t size, bool save_spaces,
                                           bool keep_entities) {
  if (!IsXmlDocument(data, size)) return nullptr;
  try {
    CXML_DataBufAcc source(static_cast<const uint8_t*>(data), size);
    XmlParser parser(source, save_spaces, keep_entities);
    return parser.ReadRoot();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace tpcsdk
