#include "lab/firmware/wsman.h"

#include <gtest/gtest.h>

#include "lab/firmware/frames.h"

namespace orrin {
namespace {

const std::string kService =
    "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService";

std::string PowerRequest(const std::string& input) {
  return "<?xml version=\"1.0\"?><s:Envelope><s:Header><a:Action m='1'> " + kService +
         "/RequestPowerStateChange </a:Action><a:MessageID>uuid:7</a:MessageID></s:Header><s:Body>"
         "<p:RequestPowerStateChange_INPUT>" +
         input + "</p:RequestPowerStateChange_INPUT></s:Body></s:Envelope>";
}

TEST(Wsman, MapsEachPowerStateOrSendsNothing) {
  const std::pair<int, int> kExpected[] = {{4, kSleep},    {5, kReboot},  {7, kHibernate},
                                           {8, kShutdown}, {10, kReboot}, {12, kShutdown},
                                           {14, kReboot},  {15, kReboot}};
  for (int state = 0; state < 40; state++) {
    int expected = 0;
    for (const auto& [known, command] : kExpected) expected = known == state ? command : expected;
    const std::string input = "<p:PowerState>" + std::to_string(state) + "</p:PowerState>";
    const HttpResponse response = AnswerWsman(PowerRequest(input), "v");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.command.value_or(0), expected) << state;
    EXPECT_EQ(ElementText(response.body, "ReturnValue"), expected ? "0" : "2") << state;
    EXPECT_EQ(ElementText(response.body, "RelatesTo"), "uuid:7");
  }
}

TEST(Wsman, IsNotDeceivedAboutThePowerState) {
  const char* const kHarmless[] = {
      "",
      "<!-- <p:PowerState>8</p:PowerState> -->",
      "<![CDATA[<p:PowerState>8</p:PowerState>]]>",
      "<p:x y=\"<p:PowerState>8</p:PowerState>\"/>",
      "<p:PowerState>8",
      "<p:PowerState/>",
      "<p:PowerState><b/>8</p:PowerState>",
      "<p:PowerState>8 8</p:PowerState>",
      "<p:PowerState>-8</p:PowerState>",
      "<p:PowerState>4294967304</p:PowerState>",
      "<p:PowerStates>8</p:PowerStates>",
  };
  for (const char* input : kHarmless) {
    EXPECT_FALSE(AnswerWsman(PowerRequest(input), "v").command) << input;
  }
  const std::string late = std::string(70000, ' ') + "<p:PowerState>8</p:PowerState>";
  EXPECT_FALSE(AnswerWsman(PowerRequest(late), "v").command);
  // The same input under another action asks for nothing.
  std::string other = PowerRequest("<p:PowerState>8</p:PowerState>");
  other.replace(other.find("RequestPowerStateChange"), 7, "Inquire");
  const HttpResponse fault = AnswerWsman(other, "v");
  EXPECT_FALSE(fault.command);
  EXPECT_EQ(fault.status, 400);
  EXPECT_NE(fault.body.find("a:ActionNotSupported"), std::string::npos);
}

TEST(Wsman, IdentifyTellsTheVersionEscaped) {
  const HttpResponse response = AnswerWsman(
      "<s:Envelope xmlns:i=\"http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd\">"
      "<s:Body><i:Identify/></s:Body></s:Envelope>",
      "2.4<&");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(ElementText(response.body, "ProductVersion"), "2.4&lt;&amp;");
  EXPECT_EQ(ElementText(response.body, "ProductVendor"), "Corvane");
  EXPECT_EQ(AnswerWsman("<Identify/>", "v").status, 400);
  EXPECT_EQ(AnswerWsman("", "v").status, 400);
}

}  // namespace
}  // namespace orrin
