// The compact text of a value is the JSON library's compact writer's, byte for byte:
// the service and the hosts see the same bytes whichever writes them.
#include <gtest/gtest.h>
#include <json/json.h>

#include <limits>
#include <random>
#include <string>

#include "operations/op_support.h"

namespace {

std::string LibraryText(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

// Bytes of every kind: plain ASCII, escapes, control bytes, valid and broken UTF-8.
std::string RandomText(std::mt19937& rng) {
  static const char* const kPieces[] = {
      "a",  "Z",  " ",   "/",   "\"",   "\\",       "\b",       "\f",           "\n",
      "\r", "\t", "\x01", "\x1f", "\x7f", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
      "\xc3", "\xe2\x82", "\xf0\x9f", "\xc0\x80", "\xed\xa0\x80", "\xf8\x88\x80\x80",
      "\xf7\xbf\xbf\xbf", "\x80", "\xff", "\xc3" "A"};
  std::string text;
  const int n = static_cast<int>(rng() % 12);
  for (int i = 0; i < n; ++i) {
    if (rng() % 16 == 0) {
      text.push_back('\0');
    } else {
      text += kPieces[rng() % (sizeof(kPieces) / sizeof(kPieces[0]))];
    }
  }
  return text;
}

Json::Value RandomValue(std::mt19937& rng, int depth) {
  switch (rng() % (depth < 3 ? 9 : 7)) {
    case 0: return Json::Value();
    case 1: return Json::Value(static_cast<Json::Int64>(static_cast<Json::Int64>(rng()) - static_cast<Json::Int64>(rng() % 3) * 2147483648));
    case 2: return Json::Value(rng() % 2 ? std::numeric_limits<Json::UInt64>::max() : static_cast<Json::UInt64>(rng()));
    case 3: return Json::Value(std::uniform_real_distribution<double>(-1e6, 1e6)(rng) * (rng() % 2 ? 1e-9 : 1e9));
    case 4: return Json::Value(rng() % 2 == 0);
    case 5:
    case 6: return Json::Value(RandomText(rng));
    case 7: {
      Json::Value array(Json::arrayValue);
      for (int n = static_cast<int>(rng() % 4); n > 0; --n) array.append(RandomValue(rng, depth + 1));
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (int n = static_cast<int>(rng() % 5); n > 0; --n) object[RandomText(rng)] = RandomValue(rng, depth + 1);
      return object;
    }
  }
}

TEST(CompactJson, IsTheLibraryWritersTextForAnyValue) {
  std::mt19937 rng(20261124);
  for (int i = 0; i < 3000; ++i) {
    const Json::Value value = RandomValue(rng, 0);
    ASSERT_EQ(tpcsdk::ops::CompactJson(value), LibraryText(value)) << "case " << i;
  }
}

TEST(CompactJson, DocumentRecordAsTheServiceReceivesIt) {
  Json::Value record(Json::objectValue);
  record["docName"] = "Report \xc3\xa9t\xc3\xa9.pdf";
  record["cAppID"] = "app-1";
  record["docSize"] = Json::Int64{123456789012};
  EXPECT_EQ(tpcsdk::ops::CompactJson(record),
            "{\"cAppID\":\"app-1\",\"docName\":\"Report \\u00e9t\\u00e9.pdf\",\"docSize\":123456789012}\n");
}

// A wide text of every kind: ASCII, escapes, controls, other planes, lone surrogates.
std::u16string RandomWide(std::mt19937& rng) {
  static const char16_t kUnits[] = {u'a', u' ', u'"', u'\\', u'/', u'\b', u'\t', u'\n', 0x01,
                                    0x1F, 0x7F, 0x80, 0xE9, 0x20AC, 0xFFFD, 0xFFFF, 0xD83D,
                                    0xDE00, 0xDBFF, 0xDC00};
  std::u16string text;
  for (int n = static_cast<int>(rng() % 10); n > 0; --n) text += kUnits[rng() % (sizeof(kUnits) / sizeof(kUnits[0]))];
  return text;
}

TEST(FlatRecord, IsTheCompactTextOfTheSameMembers) {
  std::mt19937 rng(1124);
  const char* const kNames[] = {"cAppID", "docName", "a", "operands", "isCreview", "cDocID", "docNameX"};
  for (int i = 0; i < 2000; ++i) {
    tpcsdk::ops::FlatRecord record;
    Json::Value expected(Json::objectValue);
    for (int n = static_cast<int>(rng() % 9); n > 0; --n) {
      const char* name = kNames[rng() % (sizeof(kNames) / sizeof(kNames[0]))];
      switch (rng() % 4) {
        case 0: {
          const std::u16string text = RandomWide(rng);
          const auto* wide = reinterpret_cast<TDC_LPCWSTR>(text.c_str());
          record.Text(name, wide);
          expected[name] = tpcsdk::ops::WideJson(wide);
          break;
        }
        case 1:
          record.Text(name, nullptr);
          expected[name] = tpcsdk::ops::WideJson(nullptr);
          break;
        case 2: {
          const auto number = static_cast<int64_t>(rng()) - static_cast<int64_t>(rng());
          record.Number(name, number);
          expected[name] = static_cast<Json::Int64>(number);
          break;
        }
        default: {
          const Json::Value value = RandomValue(rng, 1);
          record.Value(name, value);
          expected[name] = value;
        }
      }
    }
    ASSERT_EQ(record.Compact(), LibraryText(expected)) << "case " << i;
  }
}

}  // namespace
