#include <pthread.h>

#include "LibraryTools.h"
#include "VarnSupport/VarnProperties.h"

namespace {

template <typename StringType>
StringType text(const std::string& ascii) {
  return StringType(ascii.begin(), ascii.end());
}

// "key=value,value;key=value"
template <typename StringType>
std::string shown(const VarnProperties<StringType>& properties) {
  std::string all;
  for (const auto& [key, values] : properties.getProperties()) {
    all.append(all.empty() ? "" : ";").append(key.begin(), key.end());
    for (const auto& value : values)
      all.append(&value == &values.front() ? "=" : ",").append(value.begin(), value.end());
  }
  return all;
}

template <typename StringType>
void add(VarnProperties<StringType>& properties, const std::string& key, const std::string& value) {
  properties.addProperty(text<StringType>(key), text<StringType>(value));
}

template <typename StringType>
class Properties : public testing::Test {};

using StringTypes = testing::Types<std::string, std::wstring, ci_string, ci_wstring>;
TYPED_TEST_SUITE(Properties, StringTypes);

TYPED_TEST(Properties, ValuesOfAKeyGatherInOrderAndTheFirstIsTheAnswer) {
  VarnProperties<TypeParam> properties;
  for (const char* key : {"b", "a", "", "b"})
    add(properties, key, "1");
  add(properties, "b", "");
  EXPECT_EQ(shown(properties), "a=1;b=1,1,");
  EXPECT_EQ(properties.size(), 2u);

  const TypeParam none;
  const TypeParam& value = properties.getProperty(text<TypeParam>("b"), none);
  properties.setProperty(text<TypeParam>("b"), text<TypeParam>("9"));
  properties.setProperty(text<TypeParam>("c"), text<TypeParam>("3"));
  properties.setProperty(TypeParam(), text<TypeParam>("never"));
  properties.removeProperty(text<TypeParam>("a"));
  properties.removeProperty(text<TypeParam>("absent"));
  EXPECT_EQ(value, text<TypeParam>("9")) << "not a reference into the set";
  properties.addProperty(text<TypeParam>("b"), value);  // may move what it refers to
  EXPECT_EQ(shown(properties), "b=9,1,,9;c=3");
}

TYPED_TEST(Properties, AMissingKeyIsAnsweredByEachLookUpInItsOwnWay) {
  const VarnProperties<TypeParam> properties;
  const TypeParam key = text<TypeParam>("gone");
  TypeParam value = text<TypeParam>("kept");
  EXPECT_EQ(&properties.getProperty(key, value), &value);
  EXPECT_FALSE(properties.getPropertyValue(key, value));
  EXPECT_EQ(value, text<TypeParam>("kept"));
  EXPECT_TRUE(properties.getPropertyValues(key).empty());
  EXPECT_THROW(properties.getProperty(key), VarnPropertyNotFound);
}

TYPED_TEST(Properties, ATemporaryDefaultYieldsATextOfItsOwn) {
  VarnProperties<TypeParam> properties;
  const auto constant = []() -> const TypeParam {
    return text<TypeParam>("long enough for the heap");
  };
  const TypeParam& missing = properties.getProperty(text<TypeParam>("b"), constant());
  properties.setProperty(text<TypeParam>("b"), text<TypeParam>("1"));
  const TypeParam& found = properties.getProperty(text<TypeParam>("b"), {});
  properties.removeProperty(text<TypeParam>("b"));
  EXPECT_EQ(missing, constant());
  EXPECT_EQ(found, text<TypeParam>("1"));
}

TYPED_TEST(Properties, ALineIsAKeyASeparatorAndAValue) {
  const std::pair<const char*, const char*> cases[] = {{"port = 8080", "port =8080"},
                                                       {"name=value\nrest", "name=value"},
                                                       {"name=one\ntwo\rthree", "name=one\ntwo"},
                                                       {"a\rb=c\r", "a\rb=c\r"},
                                                       {"a\nb=c\n", "a\nb=c\n"},
                                                       {"\r", "\r="},
                                                       {"a=  \t b  ", "a=\t b  "},
                                                       {"flag\r\n", "flag\r\n="},
                                                       {"#x=1", ""},
                                                       {"  #x=1", "  #x=1"},
                                                       {"=1", ""},
                                                       {"", ""}};
  for (const auto& [line, expected] : cases) {
    VarnProperties<TypeParam> properties;
    properties.addProperty(text<TypeParam>(line), '=');
    EXPECT_EQ(shown(properties), expected) << testing::PrintToString(line);
  }
  VarnProperties<TypeParam> properties;
  properties.addProperty(text<TypeParam>("aXbxc"), 'x');
  const bool folds = TypeParam(1, 'x') == TypeParam(1, 'X');
  EXPECT_EQ(shown(properties), folds ? "a=bxc" : "aXb=c");
}

TYPED_TEST(Properties, ListsOfLinesAreAddedInOrder) {
  std::vector<TypeParam> lines;
  for (const char* line : {"b=2", "#c", "a=1", "", "b=1"})
    lines.push_back(text<TypeParam>(line));
  VarnProperties<TypeParam> properties;
  properties.loadProperties(lines, '=');
  EXPECT_EQ(shown(properties), "a=1;b=2,1");
  const typename TypeParam::value_type* pointers[] = {lines[0].c_str(), nullptr, lines[2].c_str()};
  properties.loadProperties(pointers, 2, '=');
  properties.loadProperties(pointers, -1, '=');
  for (const char* line : {"x=1", "#y", ""})
    properties.addPropertyforWSmanDA(text<TypeParam>(line));
  EXPECT_EQ(shown(properties), "a=1;b=2,1,2;x=1=");
}

template <typename StringType>
struct Eraser : VarnPropertyIterator<StringType> {
  void process(const VarnPropertyIteratorParameter<StringType>& property) override {
    seen += static_cast<char>(property.m_key[0]) + std::to_string(property.m_values.size());
    properties.removeProperty(property.m_key);
    add(properties, "z", "new");
  }
  VarnProperties<StringType> properties;
  std::string seen;
};

// Many look-ups among many keys, some of which differ only by a bit that tells cases apart.
TYPED_TEST(Properties, AnswersLikeAMapThroughManyRandomChanges) {
  for (const unsigned alike : {0U, 64U}) {
    std::vector<TypeParam> keys;
    for (unsigned i = 0; i < 400; ++i)
      keys.push_back(text<TypeParam>((i % 2 != 0 ? "key" : "KEY") + std::to_string(i / 3)));
    for (unsigned i = 0; i < alike; ++i) {
      std::string key;
      for (unsigned bit = 0; bit < 6; ++bit)
        key += (i >> bit & 1U) != 0 ? '@' : '`';
      keys.push_back(text<TypeParam>(key));
    }
    VarnProperties<TypeParam> properties;
    typename VarnProperties<TypeParam>::tProperties model;
    std::mt19937 random(alike);
    for (int step = 0; step < 30000; ++step) {
      const TypeParam& key = keys[random() % keys.size()];
      const TypeParam value = text<TypeParam>(std::to_string(step));
      const auto choice = random() % 1000;
      if (choice < 60) {
        properties.addProperty(key, value);
        model[key].push_back(value);
      } else if (choice < 100) {
        properties.removeProperty(key);
        model.erase(key);
      } else if (choice == 100) {
        properties = VarnProperties<TypeParam>(properties);
      } else {
        const auto found = model.find(key);
        ASSERT_EQ(found != model.end() ? found->second : std::vector<TypeParam>(),
                  properties.getPropertyValues(key));
      }
    }
    EXPECT_EQ(model, properties.getProperties());
  }
}

TYPED_TEST(Properties, AWalkVisitsInKeyOrderAndMayChangeTheSet) {
  Eraser<TypeParam> eraser;
  eraser.properties.forEach(eraser);
  for (const char* key : {"c", "a", "b", "a"})
    add(eraser.properties, key, "1");
  eraser.properties.forEach(eraser);
  EXPECT_EQ(eraser.seen, "a2b1c1");
  EXPECT_EQ(shown(eraser.properties), "z=new,new,new");
}

TEST(VarnProperties, FoldedKeysAreOneKeyInItsFirstSpelling) {
  VarnProperties<ci_string> folded;
  for (const char* key : {"Path", "PATH", "path", "abcd", "ABC"})
    add(folded, key, "v");
  EXPECT_EQ(shown(folded), "ABC=v;abcd=v;Path=v,v,v");
}

TEST(VarnProperties, AssignmentTakesPropertiesAndFlagAndLeavesTheCount) {
  const VarnSmartPointer<VarnProperties<std::string>> target(new VarnProperties<std::string>);
  VarnProperties<std::string> source(false);
  add(source, "a", "1");
  add(*target, "b", "2");
  *target = source;
  *target = *target;
  add(*target, "a", "2");
  EXPECT_EQ(shown(*target) + " " + shown(source), "a=2 a=1");
  EXPECT_EQ(target->refCount(), 1);
}

TEST(VarnProperties, ThreadsMayChangeReadCopyAndAssignTwoSets) {
  VarnProperties<std::string> left;
  VarnProperties<std::string> right;
  const auto read = repeating([&] {
    for (const auto& [key, values] : left.getProperties())
      EXPECT_FALSE(key.empty() || values.empty());
  });
  onThreads(2, [&](int i) {
    VarnProperties<std::string>& own = i == 0 ? left : right;
    VarnProperties<std::string>& other = i == 0 ? right : left;
    for (int turn = 0; turn < 1000; ++turn) {
      add(own, "key" + std::to_string(turn % 50), "value that is not kept in place");
      own.removeProperty("key" + std::to_string(turn % 7));
      if (turn % 20 == 0)
        own = other;
      VarnProperties<std::string>(other).setProperty("key1", "1");
    }
  });
}

TEST(VarnProperties, ReferencesExpandFromPropertiesAndThenTheEnvironment) {
  setenv("VSUPT_TEST_HOST", "host<a>", 1);
  setenv("a", "shadowed", 1);
  VarnProperties<std::string> properties;
  for (const char* line : {"a=1", "a=2", "b=<a><a>", "open=<", "half=[<", "empty=", "in<a=odd"})
    properties.addProperty(std::string(line), '=');
  const std::pair<const char*, const char*> cases[] = {
      {"x<a>y", "x1y"},
      {"<b>-<b>", "11-11"},
      {"<VSUPT_TEST_HOST>!", "host1!"},
      {"[<VSUPT_TEST_NONE>]<>", "[]"},
      {"x<a", "x<a"},
      {"a>b", "a>b"},
      {"<in<a>", "odd"},
      {"<open>a>", "1"},  // the replacement begins a reference that ends behind it
      {"x<half>b>.", "x[11."},
      {"1<empty>a>2<", "1a>2<"}};
  for (const auto& [reference, expected] : cases)
    EXPECT_EQ(VarnExpandString(reference, properties), expected) << reference;
  std::string many;  // takes minutes if the cost grows with the square of the text
  for (int i = 0; i < 100000; ++i)
    many += "<a>";
  EXPECT_EQ(VarnExpandString(many, properties), std::string(100000, '1'));
}

TEST(VarnProperties, AnExpansionWithoutEndCanBeCancelled) {
  VarnProperties<std::string> properties;
  add(properties, "a", "<a>");
  const auto expand = [](void* argument) -> void* {
    VarnExpandString("<a>", *static_cast<VarnProperties<std::string>*>(argument));
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, expand, &properties), 0);
  ASSERT_EQ(pthread_cancel(thread), 0);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
