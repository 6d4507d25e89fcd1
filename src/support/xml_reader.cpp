#include "support/xml_reader.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <unordered_map>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tpcsdk {
namespace {

// Character classes, one flag byte for each byte value.
enum : uint8_t {
  kSpace = 0x01,
  kNameStart = 0x02,
  kNameChar = 0x04,
  kDigit = 0x08,
  kHexDigit = 0x10,
  kPlain = 0x20,       // ASCII
  kPlainNoAmp = 0x40,  // ASCII other than "&"
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
    if (c < 0x80) f |= kPlain;
    if (c < 0x80 && c != '&') f |= kPlainNoAmp;
    t[static_cast<size_t>(c)] = f;
  }
  return t;
}

constexpr std::array<uint8_t, 256> kCharTable = MakeCharTable();

inline bool Is(uint8_t c, uint8_t cls) { return (kCharTable[c] & cls) != 0; }

// Writes one code point as UTF-16 at out and returns the new end; a code point
// beyond the Unicode range is dropped. The caller leaves room for two units.
char16_t* PutCodePoint(char16_t* out, uint32_t cp) {
  if (cp > 0x10FFFF) return out;
  if (cp > 0xFFFF) {
    cp -= 0x10000;
    *out++ = static_cast<char16_t>(0xD800 + (cp >> 10));
    *out++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  } else {
    *out++ = static_cast<char16_t>(cp);
  }
  return out;
}

// A byte-at-a-time UTF-8 decoder for the bytes at or above 0x80; an ASCII byte
// resets it. Lead bytes start sequences of one to six bytes; a stray continuation
// byte is dropped, and a new lead byte abandons an unfinished sequence. The bytes
// 0xFE and 0xFF start nothing. A code point takes two units only after four bytes
// or more, so the output never has more units than the input has bytes.
class Utf8Decoder {
 public:
  void Feed(uint8_t b, char16_t*& out) {
    if (b < 0xC0) {
      if (pending_ == 0) return;
      code_ = (code_ << 6) | (b & 0x3Fu);
      if (--pending_ == 0) out = PutCodePoint(out, code_);
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

// A growable run of 16-bit units that the parser reuses for every text run and
// attribute value: it grows to the longest one and is never filled with zeros.
class UnitBuffer {
 public:
  // Room for more units after the current end; returns where they go.
  char16_t* Reserve(size_t more) {
    if (capacity_ - size_ < more) Grow(size_ + more);
    return data_.get() + size_;
  }
  void SetEnd(const char16_t* end) { size_ = static_cast<size_t>(end - data_.get()); }
  void Clear() { size_ = 0; }
  size_t Size() const { return size_; }
  const char16_t* Data() const { return data_.get(); }
  // Removes blank, tab, carriage return and line feed from the end.
  void TrimEnd() {
    while (size_ > 0) {
      const char16_t c = data_[size_ - 1];
      if (c != u' ' && c != u'\t' && c != u'\r' && c != u'\n') break;
      --size_;
    }
  }

 private:
  void Grow(size_t need) {
    size_t cap = capacity_ < 256 ? 256 : capacity_ * 2;
    if (cap < need) cap = need;
    std::unique_ptr<char16_t[]> bigger(new char16_t[cap]);
    if (size_) std::memcpy(bigger.get(), data_.get(), size_ * sizeof(char16_t));
    data_ = std::move(bigger);
    capacity_ = cap;
  }
  std::unique_ptr<char16_t[]> data_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace

// The storage of one tree: chunks handed out front to back and released together
// when the root goes. Nothing in it is freed one by one, so building a tree costs a
// pointer bump per string and per element instead of a heap call.
class XmlArena {
 public:
  XmlArena() = default;
  XmlArena(const XmlArena&) = delete;
  XmlArena& operator=(const XmlArena&) = delete;
  ~XmlArena() {
    while (head_) {
      Chunk* next = head_->next;
      ::operator delete(head_);
      head_ = next;
    }
  }

  void* Allocate(size_t bytes, size_t align) {
    uintptr_t at = (reinterpret_cast<uintptr_t>(cur_) + (align - 1)) & ~(uintptr_t{align} - 1);
    if (cur_ == nullptr || at > reinterpret_cast<uintptr_t>(end_) ||
        reinterpret_cast<uintptr_t>(end_) - at < bytes) {
      NewChunk(bytes + align);
      at = (reinterpret_cast<uintptr_t>(cur_) + (align - 1)) & ~(uintptr_t{align} - 1);
    }
    cur_ = reinterpret_cast<char*>(at + bytes);
    return reinterpret_cast<void*>(at);
  }

  template <typename T>
  T* CopyOf(const T* from, size_t count) {
    if (count == 0) return nullptr;
    void* to = Allocate(count * sizeof(T), alignof(T));
    std::memcpy(to, from, count * sizeof(T));
    return static_cast<T*>(to);
  }

 private:
  // Chunks start small, for the few kilobytes of a usual preference file, and
  // double up to a size that stays on the ordinary heap.
  static constexpr size_t kFirstChunk = 4096;
  static constexpr size_t kLargestChunk = 64 * 1024;

  struct alignas(16) Chunk {
    Chunk* next;
  };

  void NewChunk(size_t least) {
    size_t size = next_size_;
    if (next_size_ < kLargestChunk) next_size_ *= 2;
    if (size < least) size = least;
    auto* chunk = static_cast<Chunk*>(::operator new(sizeof(Chunk) + size));
    chunk->next = head_;
    head_ = chunk;
    cur_ = reinterpret_cast<char*>(chunk + 1);
    end_ = cur_ + size;
  }

  Chunk* head_ = nullptr;
  char* cur_ = nullptr;
  char* end_ = nullptr;
  size_t next_size_ = kFirstChunk;
};

// The reader: one pass over one memory block, building the tree in an arena.
class XmlTreeBuilder {
 public:
  XmlTreeBuilder(const uint8_t* data, size_t size, bool save_spaces, bool keep_entities)
      : block_(data), size_(size), save_spaces_(save_spaces), keep_entities_(keep_entities),
        arena_(std::make_unique<XmlArena>()) {}

  std::unique_ptr<XmlElement> ReadRoot() {
    if (!ReadElement(nullptr, false)) return nullptr;
    root_->arena_ = std::move(arena_);
    return std::move(root_);
  }

 private:
  enum class Tag { kNone, kStart, kEnd };

  // Holds the depth for one level of element reading.
  struct DepthGuard {
    explicit DepthGuard(int& d) : depth(d) { ++depth; }
    ~DepthGuard() { --depth; }
    int& depth;
  };

  // An attribute's space and name, for the look-up of a repeated one.
  using AttrKey = std::pair<std::string_view, std::string_view>;
  struct AttrKeyHash {
    size_t operator()(const AttrKey& k) const {
      const size_t a = std::hash<std::string_view>()(k.first);
      return a ^ (std::hash<std::string_view>()(k.second) + 0x9e3779b97f4a7c15ull + (a << 6) + (a >> 2));
    }
  };
  // Up to this many attributes a repeated name is found by a linear search; beyond
  // it, through a hash index, so that a tag with very many attributes stays linear.
  static constexpr size_t kLinearAttrs = 8;

  bool More() const { return pos_ < size_; }
  uint8_t Peek() const { return block_[pos_]; }

  void SkipWhiteSpace() {
    while (More() && Is(Peek(), kSpace)) ++pos_;
  }

  // The index of the next byte b at or after from, or the end of the data.
  size_t FindByte(uint8_t b, size_t from) const {
    if (from >= size_) return size_;
    const void* hit = std::memchr(block_ + from, b, size_ - from);
    return hit ? static_cast<size_t>(static_cast<const uint8_t*>(hit) - block_) : size_;
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
  // unread. Both are views of the data.
  void ReadName(std::string_view& space, std::string_view& name) {
    const size_t start = pos_;
    size_t colon = std::string::npos;
    while (More() && Is(Peek(), kNameStart | kNameChar)) {
      if (Peek() == ':') colon = pos_;
      ++pos_;
    }
    const char* p = reinterpret_cast<const char*>(block_);
    if (colon == std::string::npos) {
      space = std::string_view();
      name = std::string_view(p + start, pos_ - start);
    } else {
      space = std::string_view(p + start, colon - start);
      name = std::string_view(p + colon + 1, pos_ - colon - 1);
    }
  }

  // A name of the data copied into the tree's storage: the space and the name of a
  // qualified name share one copy.
  void KeepName(std::string_view& space, std::string_view& name) {
    if (space.empty()) {
      name = std::string_view(arena_->CopyOf(name.data(), name.size()), name.size());
      return;
    }
    const size_t whole = static_cast<size_t>(name.data() + name.size() - space.data());
    const char* copy = arena_->CopyOf(space.data(), whole);
    name = std::string_view(copy + (name.data() - space.data()), name.size());
    space = std::string_view(copy, space.size());
  }

  std::u16string_view KeepUnits(const UnitBuffer& units) {
    return std::u16string_view(arena_->CopyOf(units.Data(), units.Size()), units.Size());
  }

  // Finds the next tag, passing over processing instructions and comments and
  // anything else before it.
  Tag FindTag(std::string_view& space, std::string_view& name) {
    for (;;) {
      pos_ = FindByte('<', pos_);
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
    const size_t start = pos_;
    pos_ = FindByte(';', pos_);
    std::string_view ent(reinterpret_cast<const char*>(block_) + start, pos_ - start);
    if (More()) ++pos_;
    if (ent == "gt") return 0x3E;
    if (ent == "lt") return 0x3C;
    if (ent == "amp") return 0x26;
    if (ent == "apos") return 0x27;
    if (ent == "quot") return 0x22;
    return 0;
  }

  // Decodes the data from the position up to the next byte stop (left unread) or
  // the end, appending to units. With entities, "&" starts an entity, which may run
  // past stop: the search for stop then starts again after it. Between the markup
  // bytes the inner loop copies plain ASCII straight across.
  void DecodeUntil(uint8_t stop, bool entities, Utf8Decoder& dec, UnitBuffer& units) {
    const uint8_t plain = entities ? kPlainNoAmp : kPlain;
    while (More()) {
      const size_t end = FindByte(stop, pos_);
      if (end == pos_) return;
      char16_t* out = units.Reserve(end - pos_);
      const uint8_t* p = block_ + pos_;
      const uint8_t* const last = block_ + end;
      bool entity = false;
      while (p < last) {
        uint8_t c = *p;
        if (Is(c, plain)) {
          dec.Reset();
#if defined(__SSE2__)
          // Sixteen bytes at a time while none of them is a high byte or, with
          // entities, an "&": each byte widens to a unit with zeros interleaved.
          const __m128i amp = _mm_set1_epi8('&');
          const __m128i zero = _mm_setzero_si128();
          while (last - p >= 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            int stops = _mm_movemask_epi8(v);
            if (entities) stops |= _mm_movemask_epi8(_mm_cmpeq_epi8(v, amp));
            if (stops != 0) break;
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(v, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(v, zero));
            p += 16;
            out += 16;
          }
          if (p == last) break;
          c = *p;
          if (!Is(c, plain)) continue;
#endif
          do {
            *out++ = c;
            if (++p == last) break;
            c = *p;
          } while (Is(c, plain));
        } else if (c >= 0x80) {
          dec.Feed(c, out);
          ++p;
        } else {
          entity = true;  // "&" with entities on
          break;
        }
      }
      units.SetEnd(out);
      pos_ = static_cast<size_t>(p - block_);
      if (!entity) return;
      ++pos_;
      const uint32_t cp = ReadEntity();
      units.SetEnd(PutCodePoint(units.Reserve(2), cp));
    }
  }

  // Reads a quoted attribute value into the tree's storage. Without an opening
  // quote the value is empty and the position stays.
  std::u16string_view ReadAttrValue() {
    if (!More()) return std::u16string_view();
    const uint8_t quote = Peek();
    if (quote != '"' && quote != '\'') return std::u16string_view();
    ++pos_;
    Utf8Decoder dec;
    value_.Clear();
    DecodeUntil(quote, true, dec, value_);
    if (More()) ++pos_;
    return KeepUnits(value_);
  }

  // Adds an attribute of the tag being read; one with the space and name of an
  // earlier one replaces its value in place.
  void SetAttr(std::string_view space, std::string_view name, std::u16string_view value) {
    if (attrs_.size() < kLinearAttrs) {
      for (XmlAttribute& a : attrs_) {
        if (a.name == name && a.space == space) {
          a.value = value;
          return;
        }
      }
    } else {
      if (!indexed_) {
        attr_index_.clear();
        for (size_t i = 0; i < attrs_.size(); ++i) attr_index_.emplace(AttrKey(attrs_[i].space, attrs_[i].name), i);
        indexed_ = true;
      }
      auto found = attr_index_.try_emplace(AttrKey(space, name), attrs_.size());
      if (!found.second) {
        attrs_[found.first->second].value = value;
        return;
      }
    }
    // Member by member: the compiler's whole-record copy stores the views as words
    // and reloads them as pairs, which stalls on every attribute.
    XmlAttribute& added = attrs_.emplace_back();
    added.space = space;
    added.name = name;
    added.value = value;
  }

  // Moves the attributes of the tag just read into the element, names copied.
  void FinishAttrs(XmlElement& el) {
    if (attrs_.empty()) return;
    for (XmlAttribute& a : attrs_) KeepName(a.space, a.name);
    el.attrs_ = arena_->CopyOf(attrs_.data(), attrs_.size());
    el.attr_count_ = attrs_.size();
    attrs_.clear();
  }

  // Moves the entries collected for el since base into it.
  void FinishContent(XmlElement& el, size_t base) {
    const size_t count = entries_.size() - base;
    if (count == 0) return;
    el.content_ = arena_->CopyOf(entries_.data() + base, count);
    el.content_count_ = count;
    entries_.resize(base);
  }

  // Adds the text collected so far as a run, trimmed at its end unless spaces are
  // saved, and starts a new run.
  void FlushText(Utf8Decoder& dec) {
    dec.Reset();
    if (!save_spaces_) text_.TrimEnd();
    if (text_.Size() != 0) AddRun(false);
    text_.Clear();
  }

  void AddRun(bool cdata) {
    auto* run = new (arena_->Allocate(sizeof(XmlContent), alignof(XmlContent))) XmlContent;
    run->cdata = cdata;
    run->text = KeepUnits(text_);
    entries_.push_back(XmlElement::Entry{nullptr, run});
  }

  XmlElement* NewElement(XmlElement* parent, std::string_view space, std::string_view name) {
    KeepName(space, name);
    if (!parent) {
      root_.reset(new XmlElement(nullptr, space, name));
      return root_.get();
    }
    // Elements below the root live in the arena; none of them owns anything, so
    // the arena's release is their end.
    return new (arena_->Allocate(sizeof(XmlElement), alignof(XmlElement))) XmlElement(parent, space, name);
  }

  // Reads one element and everything in it. With tag_open the "<" of its start
  // tag has been consumed and the name begins at the position.
  XmlElement* ReadElement(XmlElement* parent, bool tag_open) {
    DepthGuard guard(depth_);
    if (depth_ > kXmlMaxDepth) return nullptr;

    std::string_view space, name;
    Tag tag = Tag::kStart;
    if (tag_open)
      ReadName(space, name);
    else
      tag = FindTag(space, name);
    if (tag != Tag::kStart || name.empty()) return nullptr;

    XmlElement* el = NewElement(parent, space, name);
    SkipWhiteSpace();
    attrs_.clear();
    indexed_ = false;
    std::string_view aspace, aname;
    while (More() && Is(Peek(), kNameStart)) {
      ReadName(aspace, aname);
      SkipWhiteSpace();
      if (!More() || Peek() != '=') break;
      ++pos_;
      SkipWhiteSpace();
      const std::u16string_view value = ReadAttrValue();
      SetAttr(aspace, aname, value);
      SkipWhiteSpace();
    }
    FinishAttrs(*el);
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

  // The text runs and child elements of el, up to its end tag or the end of the
  // data. The text buffer is shared by every level: a run is flushed before a
  // child is read, so it is empty whenever reading goes down or comes back up.
  void ReadContent(XmlElement& el) {
    const size_t base = entries_.size();
    text_.Clear();
    Utf8Decoder dec;
    while (More()) {
      if (Peek() != '<') {
        DecodeUntil('<', !keep_entities_, dec, text_);
        continue;
      }
      ++pos_;
      if (!More()) break;
      const uint8_t c = Peek();
      if (c == '?') {
        ++pos_;
        SkipPast("?>");
        SkipWhiteSpace();
      } else if (c == '!') {
        ++pos_;
        if (More() && Peek() == '[') {
          ++pos_;
          FlushText(dec);
          ReadCData();
        } else if (More() && Peek() == '-') {
          SkipPast("-->");
        } else {
          SkipPast(">");
        }
      } else if (c == '/') {
        // The end tag's name is read and not compared with the start tag's.
        ++pos_;
        std::string_view space, name;
        ReadName(space, name);
        SkipPast(">");
        FlushText(dec);
        FinishContent(el, base);
        return;
      } else {
        FlushText(dec);
        if (XmlElement* child = ReadElement(&el, true)) entries_.push_back(XmlElement::Entry{child, nullptr});
      }
    }
    FlushText(dec);
    FinishContent(el, base);
  }

  // The position is after "<![". The six bytes that follow (normally "CDATA[") are
  // passed over unchecked, and the bytes from there to "]]>" are the section's
  // text. An unclosed section runs to the end of the data.
  void ReadCData() {
    const size_t start = pos_;
    size_t end = Find("]]>", start);
    pos_ = end == std::string_view::npos ? size_ : end + 3;
    if (end == std::string_view::npos) end = size_;
    if (end <= start + 6) return;
    Utf8Decoder dec;
    char16_t* out = text_.Reserve(end - start - 6);
    for (size_t i = start + 6; i < end; ++i) {
      const uint8_t c = block_[i];
      if (c < 0x80) {
        dec.Reset();
        *out++ = c;
      } else {
        dec.Feed(c, out);
      }
    }
    text_.SetEnd(out);
    AddRun(true);
    text_.Clear();
  }

  const uint8_t* block_;
  size_t size_;
  size_t pos_ = 0;
  int depth_ = 0;
  bool save_spaces_;
  bool keep_entities_;
  std::unique_ptr<XmlArena> arena_;
  std::unique_ptr<XmlElement> root_;
  UnitBuffer text_;   // the text run being read
  UnitBuffer value_;  // the attribute value being read
  std::vector<XmlAttribute> attrs_;  // the attributes of the tag being read
  std::unordered_map<AttrKey, size_t, AttrKeyHash> attr_index_;
  bool indexed_ = false;
  std::vector<XmlElement::Entry> entries_;  // the content of every open element, innermost last
};

XmlElement::XmlElement(XmlElement* parent, std::string_view space, std::string_view name)
    : parent_(parent), space_(space), name_(name) {}

XmlElement::~XmlElement() = default;

XmlElement::ContentKind XmlElement::GetChildKind(size_t index) const {
  return index < content_count_ && content_[index].element ? kElement : kText;
}

XmlElement* XmlElement::GetElement(size_t index) const {
  return index < content_count_ ? content_[index].element : nullptr;
}

const XmlContent* XmlElement::GetContent(size_t index) const {
  return index < content_count_ ? content_[index].content : nullptr;
}

const XmlAttribute* XmlElement::FindAttr(std::string_view qname) const {
  std::string_view space, name = qname;
  size_t colon = qname.rfind(':');
  if (colon != std::string_view::npos) {
    space = qname.substr(0, colon);
    name = qname.substr(colon + 1);
  }
  for (size_t i = 0; i < attr_count_; ++i)
    if (attrs_[i].name == name && attrs_[i].space == space) return &attrs_[i];
  return nullptr;
}

bool XmlElement::HasAttr(std::string_view qname) const { return FindAttr(qname) != nullptr; }

bool XmlElement::GetAttrValue(std::string_view qname, std::u16string& out) const {
  const XmlAttribute* a = FindAttr(qname);
  if (!a) return false;
  out.assign(a->value);
  return true;
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
    XmlTreeBuilder builder(static_cast<const uint8_t*>(data), size, save_spaces, keep_entities);
    return builder.ReadRoot();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace tpcsdk
