// ICU marks a text that it gets no memory for as bogus, and a bogus text reads as an empty one.
// Nothing here takes it for that.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "infra/oss/kruConverter.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruStringTokenizer.h"
#include "infra/oss/kruUTF8String.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq {
namespace {

icu::UnicodeString bogus() {
  icu::UnicodeString text(u"text");
  text.setToBogus();
  return text;
}

struct Use {
  const char* name;
  std::function<void()> use;
};

const Use kUses[] = {
    {"Checked", [] { oss::Converter::checked(bogus()); }},
    {"ToUTF8", [] { oss::Converter::toUTF8(bogus()); }},
    {"ToUTF8InABuffer",
     [] {
       oss::SizeableBuffer<char, 8> buffer;
       oss::Converter::toUTF8(bogus(), buffer);
     }},
    {"AppendUTF8",
     [] {
       oss::SizeableBuffer<char, 8> buffer;
       oss::Converter::appendUTF8(bogus(), buffer, 0);
     }},
    {"UTF8String", [] { oss::UTF8String{bogus()}; }},
    {"AppendToUTF8String", [] { oss::UTF8String().append(bogus()); }},
    {"TextToSplit", [] { oss::StringTokenizer(bogus(), u","); }},
    {"Delimiters", [] { oss::StringTokenizer(u"a,b", bogus()); }},
    {"PropertyName", [] { util::ExtendedProperties().putProperty(bogus(), u"value"); }},
    {"PropertyValue", [] { util::ExtendedProperties().putProperty(u"name", bogus()); }},
};

class BogusText : public testing::TestWithParam<Use> {};

TEST_P(BogusText, IsOutOfMemory) {
  try {
    GetParam().use();
    FAIL() << "taken for a text";
  } catch (const oss::NLSException& e) {
    ASSERT_EQ(1U, e.getMessageList().size());
    EXPECT_TRUE(e.getMessageList().front().getMessageId() == u"TQ_ERR_OUT_OF_MEMORY");
  }
}

INSTANTIATE_TEST_SUITE_P(Uses, BogusText, testing::ValuesIn(kUses),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(BogusProperty, LeavesTheSetAsItWas) {
  util::ExtendedProperties properties;
  properties.putProperty(u"name", u"value");
  const icu::UnicodeString none = bogus();
  EXPECT_THROW(properties.putProperty(u"name", none), oss::NLSException);
  EXPECT_THROW(properties.putProperty(none, u"value"), oss::NLSException);
  EXPECT_THROW(properties.putProperty(icu::UnicodeString(u"name"), bogus()), oss::NLSException);
  EXPECT_EQ(1U, properties.size());
  EXPECT_TRUE(properties.requireProperty(u"name") == u"value");
}

TEST(BogusProperty, LeavesThatOfTheEmptyNameAsItWas) {
  util::ExtendedProperties properties;
  properties.putProperty(u"", u"value");
  const icu::UnicodeString none = bogus();
  EXPECT_THROW(properties.putProperty(none, icu::UnicodeString(u"new")), oss::NLSException);
  EXPECT_THROW(properties.putProperty(bogus(), icu::UnicodeString(u"new")), oss::NLSException);
  EXPECT_TRUE(properties.requireProperty(u"") == u"value");
}

}  // namespace
}  // namespace tq
