#include "pelmora/common/dictionary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using ::testing::ElementsAre;

TEST(Dictionary, KeepsInsertionOrderAndFirstSpelling) {
  Dictionary d;
  d.Add("Zeta", Variant(1));
  d.Add("alpha", Variant(2));
  d.Add("Mid", Variant(3));
  d.SetItem("ZETA", Variant(9));
  EXPECT_EQ(d.Keys(), (std::vector<std::string>{"Zeta", "alpha", "Mid"}));
  EXPECT_EQ(d.Items(), (std::vector<Variant>{Variant(9), Variant(2), Variant(3)}));
  std::vector<std::string> seen;
  for (const auto& [key, value] : d) seen.push_back(key + "=" + value.ToString());
  EXPECT_EQ(seen, (std::vector<std::string>{"Zeta=9", "alpha=2", "Mid=3"}));
}

TEST(Dictionary, ComparesKeysWithoutCase) {
  Dictionary d;
  d.Add("C:\\Data\\File.TXT", Variant("x"));
  EXPECT_TRUE(d.Exists("c:\\data\\file.txt"));
  EXPECT_EQ(d.Item("C:\\DATA\\FILE.txt"), Variant("x"));
  EXPECT_FALSE(d.Exists("C:\\Data\\File.TX"));
  d.Add("Grüße", Variant(1));
  EXPECT_TRUE(d.Exists("GRÜßE"));
  EXPECT_FALSE(d.Exists("GRÜSSE"));  // a letter folds to one letter, never to two
  EXPECT_TRUE(d.Exists("gRüßE"));
  d.Add("\xC9t\xC9", Variant(2));  // invalid UTF-8 bytes are kept and compared as they are
  EXPECT_TRUE(d.Exists("\xC9T\xC9"));
  EXPECT_FALSE(d.Exists("\xE9t\xE9"));
}

TEST(Dictionary, LettersBeyondAsciiFoldToo) {
  const char* pairs[][2] = {
      {"\u00e9.txt", "\u00c9.TXT"}, {"\u0153uvre", "\u0152UVRE"},
      {"\u00ff", "\u0178"},         {"\u0434\u0430", "\u0414\u0410"},
      {"\u03c3", "\u03a3"},         {"\u00e5ngstr\u00f6m", "\u00c5NGSTR\u00d6M"}};
  for (const auto& pair : pairs) {
    Dictionary d;
    d.Add(pair[0], Variant(1));
    EXPECT_TRUE(d.Exists(pair[1])) << pair[0];
    EXPECT_EQ(testing::RaisedError([&] { d.Add(pair[1], Variant(2)); }).Number(), 457) << pair[0];
  }
}

TEST(Dictionary, DuplicateKeyInAnyCaseRaises457) {
  Dictionary d;
  d.Add("Task", Variant(1));
  Error e = pelmora::testing::RaisedError([&] { d.Add("TASK", Variant(2)); });
  EXPECT_EQ(e.Number(), 457);
  EXPECT_EQ(e.Description(), "This key is already associated with an element of this collection");
  EXPECT_EQ(d.Count(), 1u);
  EXPECT_EQ(d.Item("task"), Variant(1));
}

TEST(Dictionary, RemoveKeepsTheOrderOfTheRest) {
  OrderedDictionary<int> d;
  for (const char* key : {"a", "b", "c", "d"}) d.Add(key, static_cast<int>(d.Count()));
  d.Remove("B");
  d.Add("e", 4);
  EXPECT_EQ(d.Keys(), (std::vector<std::string>{"a", "c", "d", "e"}));
  EXPECT_EQ(d.Item("D"), 3);
  EXPECT_EQ(d.Item("e"), 4);
  d.Remove("a");
  EXPECT_EQ(*d.Find("c"), 2);
  d.RemoveAll();
  EXPECT_EQ(d.Count(), 0u);
  EXPECT_FALSE(d.Exists("c"));
}

TEST(Dictionary, MissingKeyRaises5ForItemAndRemove) {
  Dictionary d;
  for (const Error& e : {pelmora::testing::RaisedError([&] { d.Item("none"); }),
                         pelmora::testing::RaisedError([&] { d.Remove("none"); })}) {
    EXPECT_EQ(e.Number(), 5);
    EXPECT_EQ(e.Description(), "Invalid procedure call");
  }
  EXPECT_EQ(d.Find("none"), nullptr);
}

TEST(Dictionary, IndexingAddsAnEmptyValueOnce) {
  Dictionary d;
  d["Key"] = Variant(5);
  d["KEY"] = Variant(6);
  EXPECT_EQ(d.Count(), 1u);
  EXPECT_EQ(d.Item("key"), Variant(6));
  EXPECT_TRUE(d["other"].IsEmpty());
  EXPECT_THAT(d.Keys(), ElementsAre("Key", "other"));
}

}  // namespace
}  // namespace pelmora
