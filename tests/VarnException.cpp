#include <deque>

#include "TestTools.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnStringUtilities.h"

using Messages = std::deque<std::wstring>;

namespace {

template <typename Kind, typename... Argument>
void expectText(const std::string& text, const Argument&... argument) {
  try {
    throw Kind(argument...);
  } catch (const VarnException& exception) {
    const std::wstring wide(text.begin(), text.end());
    EXPECT_EQ(exception.getText(), text);
    EXPECT_EQ(exception.getUText(), wide);
    EXPECT_EQ(exception.getCode(), 0);
    EXPECT_EQ(exception.getCallStack(), text.empty() ? Messages() : Messages{wide});
  }
}

}  // namespace

TEST(VarnException, EachKindBuildsItsTextWithCodeZero) {
  const std::string detail = "42";
  expectText<VarnKeyDataNotSupportedException>("VarnKeyDataNotSupportedException - 42", detail);
  expectText<VarnNoSuchElementException>("VarnNoSuchElementException - 42", detail);
  expectText<VarnInvalidDateException>("VarnInvalidDateException - 42", detail);
  expectText<VarnInvalidEncryptionException>("VarnInvalidEncryptionException - 42", detail);
  expectText<VarnMissingMessageException>("VarnMissingMessageException - Missing 42", detail);
  expectText<VarnPropertyNotFound>("Property not found: 42", detail);
  expectText<VarnPropertyNotFound>("Property not found: Key", ci_string("Key"));
  expectText<VarnPropertyNotFound>("Property not found: a b", std::wstring(L"a\u20ACb"));
  expectText<VarnPropertyNotFound>("Property not found: Key", ci_wstring(L"Key\0cut", 7));
  expectText<VarnPropertyNotFound>("");
}

TEST(VarnException, FormatsItsMessagesNewestFirst) {
  VarnException exception("T", 5);
  exception.pushMessage(L"A");
  exception.pushMessage(L"B");
  exception.setText("new");
  EXPECT_EQ(exception.getFormattedMessages(), L"B\nA\nT");
  EXPECT_EQ(exception.getCallStack(), (Messages{L"T", L"A", L"B"}));
  exception.pushMessage(L"");
  EXPECT_EQ(exception.getFormattedMessages(), L"B\nA\nT");
  EXPECT_EQ(exception.popMessage() + exception.popMessage(), L"B");
  exception.popMessage();
  exception.popMessage();
  EXPECT_EQ(exception.getFormattedMessages(), L"");
  EXPECT_EQ(exception.getText(), "new");
  exception.pushMessage(L"kept");
  VarnException other(7);
  other = exception;
  other.setText(L"\u20AC");
  other.setCode(3);
  EXPECT_EQ(other.getText() + std::to_string(other.getCode()), " 3");
  EXPECT_EQ(other.getFormattedMessages(), L"kept");
  EXPECT_EQ(VarnException(7).getFormattedMessages(), L"");
}
