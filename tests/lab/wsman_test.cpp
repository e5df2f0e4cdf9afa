#include "lab/firmware/wsman.h"

#include <gtest/gtest.h>

namespace orrin {
namespace {

std::string PowerRequest(const std::string& input, const std::string& method) {
  return "<s:Envelope><s:Header><a:Action>"
         "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService/" +
         method + "</a:Action></s:Header><s:Body><p:RequestPowerStateChange_INPUT>" + input +
         "</p:RequestPowerStateChange_INPUT></s:Body></s:Envelope>";
}

TEST(Wsman, OnlyAPlainPowerStateGivesACommand) {
  const std::string state = "<p:PowerState>8</p:PowerState>";
  EXPECT_TRUE(AnswerWsman(PowerRequest(state, "RequestPowerStateChange"), "v").command);
  EXPECT_FALSE(AnswerWsman(PowerRequest(state, "InquirePowerStateChange"), "v").command);
  const std::string harmless[] = {
      "",
      "<!-- " + state + " -->",
      "<![CDATA[" + state + "]]>",
      "<p:x y=\"" + state + "\"/>",
      "<p:PowerState>8",
      "<p:PowerState/>",
      "<p:PowerState><b/>8</p:PowerState>",
      "<p:PowerState>8 8</p:PowerState>",
      "<p:PowerState>-8</p:PowerState>",
      "<p:PowerState>4294967304</p:PowerState>",
      "<p:PowerStates>8</p:PowerStates>",
      std::string(70000, ' ') + state,  // beyond what is searched
  };
  for (const std::string& input : harmless) {
    const std::string request = PowerRequest(input, "RequestPowerStateChange");
    EXPECT_FALSE(AnswerWsman(request, "v").command) << input.substr(0, 80);
  }
}

}  // namespace
}  // namespace orrin
