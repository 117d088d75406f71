// The SFP views of system-mgr-ctl: module identities from the identification bytes, diagnostics
// and receive power in engineering units, insertion events.

#include "decode_sfp.hpp"
#include "decode.hpp"
#include "decode_test_support.hpp"
#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace xpon::system_mgr::ctl {
namespace {

using test::kDaemon;

// The identification bytes of a module as the board driver lays them out (59 kept by the daemon).
ipc::Payload identification(const std::string& vendor, const std::string& part, const std::string& revision,
                            std::uint16_t wavelength, const std::string& serial) {
  ipc::Payload data(59, 0);
  data[0] = 0x03;
  data[1] = 0x07;
  const auto text = [&data](std::size_t offset, std::string value, std::size_t length) {
    value.resize(length, ' ');
    std::memcpy(data.data() + offset, value.data(), length);
  };
  text(2, vendor, 16);
  data[18] = 0x00;
  data[19] = 0x1F;
  data[20] = 0x22;
  text(21, part, 16);
  text(37, revision, 4);
  data[41] = static_cast<std::uint8_t>(wavelength >> 8U);
  data[42] = static_cast<std::uint8_t>(wavelength & 0xFFU);
  text(43, serial, 16);
  return data;
}

ipc::Payload example_identification() {
  return identification("XPON-OPTICS", "GP-SFP-C++", "A", 1490, "XO2311000100");
}

ipc::Payload record(std::uint32_t port, std::uint8_t state, const ipc::Payload& data) {
  ipc::Payload bytes{static_cast<std::uint8_t>(port), static_cast<std::uint8_t>(port >> 8U), 0, 0, state};
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

using test::answered;
using test::put;

TEST(CtlSfpIdentity, ReadsTheBaseIdFields) {
  const auto identity = detail::decode_sfp_identity(example_identification());
  EXPECT_EQ(identity.identifier, 0x03);
  EXPECT_EQ(identity.connector, 0x07);
  EXPECT_EQ(identity.vendor, "XPON-OPTICS");
  EXPECT_EQ(identity.oui, "00:1f:22");
  EXPECT_EQ(identity.part_number, "GP-SFP-C++");
  EXPECT_EQ(identity.revision, "A");
  EXPECT_EQ(identity.wavelength_nm, 1490);
  EXPECT_EQ(identity.serial, "XO2311000100");
  EXPECT_EQ(detail::sfp_identity_text(identity), "XPON-OPTICS GP-SFP-C++ rev A, serial XO2311000100, 1490 nm");
}

TEST(CtlSfpIdentity, AllOnesBytesAreEscapedNotTrusted) {
  const auto identity = detail::decode_sfp_identity(ipc::Payload(59, 0xFF));
  EXPECT_EQ(identity.vendor.substr(0, 8), "\\xff\\xff");
  EXPECT_EQ(identity.vendor.size(), 64U);
  EXPECT_EQ(identity.wavelength_nm, 65535);
  EXPECT_EQ(identity.oui, "ff:ff:ff");
}

TEST(CtlSfpIdentity, EmptyDataGivesEmptyFields) {
  const auto identity = detail::decode_sfp_identity({});
  EXPECT_TRUE(identity.vendor.empty());
  EXPECT_EQ(identity.wavelength_nm, 0);
  EXPECT_EQ(detail::sfp_identity_text(identity), "(no vendor) (no part number) rev -, serial -, 0 nm");
}

TEST(CtlSfpEvents, PPortInsertionShowsTheModulesIdentity) {
  const auto event = test::event_of(IPC_SYSTEM_MGR, 15539, record(3, 0x21, example_identification()));
  EXPECT_EQ(format_event(event, false),
            "15500:15539 IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED from 0x0019fffe: P-port 3 SFP module "
            "inserted: XPON-OPTICS GP-SFP-C++ rev A, serial XO2311000100, 1490 nm, state 0x21");
  const std::string json = format_event(event, true);
  EXPECT_TRUE(json.starts_with(
      R"({"type":"sfp_inserted","group":15500,"id":15539,"name":"IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED",)"
      R"("source":"0x0019fffe","slot":65534,"address":"0x0000fffe","ports":"P","port":3,"state":33,)"
      R"("vendor":"XPON-OPTICS","oui":"00:1f:22","part_number":"GP-SFP-C++","revision":"A",)"
      R"("serial":"XO2311000100","wavelength_nm":1490,"identifier":3,"connector":7,"data":"0307)"))
      << json;
  EXPECT_TRUE(json.ends_with(R"(20202020"})")) << json;
}

TEST(CtlSfpEvents, FPortInsertionUsesItsGroup) {
  const auto event = test::event_of(IPC_SYSTEM_MGR, 15541,
                                    record(2, 0x01, identification("XPON-OPTICS", "SFP-10G-LR", "B", 1310, "S1")));
  EXPECT_EQ(format_event(event, false),
            "15500:15541 IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED from 0x0019fffe: F-port 2 SFP module "
            "inserted: XPON-OPTICS SFP-10G-LR rev B, serial S1, 1310 nm, state 0x01");
}

TEST(CtlSfpAnswers, TotalInfoListsEachModulesIdentity) {
  ipc::Payload payload = record(1, 0x21, example_identification());
  const auto second = record(7, 0x05, identification("X", "Y", "", 850, "Z"));
  payload.insert(payload.end(), second.begin(), second.end());
  const auto text = format_response(kDaemon, 15521, answered(payload), false);
  EXPECT_TRUE(
      text.ends_with("(128 bytes)\n  port 1: XPON-OPTICS GP-SFP-C++ rev A, serial XO2311000100, 1490 nm, "
                     "state 0x21\n  port 7: X Y rev -, serial Z, 850 nm, state 0x05"))
      << text;
  const auto json = format_response(kDaemon, 15522, answered(record(4, 1, example_identification())), true);
  EXPECT_NE(json.find(R"("decoded":{"modules":[{"port":4,"state":1,"vendor":"XPON-OPTICS","oui":"00:1f:22",)"
                      R"("part_number":"GP-SFP-C++","revision":"A","serial":"XO2311000100","wavelength_nm":1490,)"),
            std::string::npos)
      << json;
  EXPECT_TRUE(format_response(kDaemon, 15522, answered({}), false).ends_with("(0 bytes)\n  no modules"));
  EXPECT_TRUE(format_response(kDaemon, 15521, answered(ipc::Payload(65, 0)), false)
                  .ends_with("malformed answer: 65 bytes, expected a multiple of 64 (one record per module)"));
}

ipc::Payload eddi_answer(double temperature, double microvolts, double bias, double power) {
  ipc::Payload payload(133, 0);
  put<std::uint32_t>(payload, 0, 5);
  payload[4] = 1;
  put(payload, 5, temperature);
  put(payload, 13, microvolts);
  put(payload, 21, bias);
  put(payload, 29, power);
  return payload;
}

TEST(CtlSfpAnswers, DiagnosticsInEngineeringUnits) {
  const auto payload = eddi_answer(40.0, 3300000.0, 6.0, 1.0);
  EXPECT_TRUE(format_response(kDaemon, 15518, answered(payload), false)
                  .ends_with("(133 bytes)\n  port 5: diagnostics valid, temperature 40 °C, supply 3.3 V, bias 6 mA, "
                             "TX power 1 mW (0.00 dBm)"));
  EXPECT_TRUE(format_response(kDaemon, 15519, answered(payload), true)
                  .ends_with(R"("decoded":{"port":5,"valid":true,"temperature_c":40.0,"supply_v":3.3,)"
                             R"("supply_uv":3300000.0,"bias_ma":6.0,"tx_power_mw":1.0,"tx_power_dbm":0.0}})"));
}

TEST(CtlSfpAnswers, NoTransmittedLightHasNoDbm) {
  const auto payload = eddi_answer(-5.5, 0.0, 0.0, 0.0);
  EXPECT_TRUE(format_response(kDaemon, 15518, answered(payload), false)
                  .ends_with("temperature -5.5 °C, supply 0 V, bias 0 mA, TX power 0 mW (no light)"));
  EXPECT_TRUE(format_response(kDaemon, 15518, answered(payload), true).ends_with(R"("tx_power_dbm":null}})"));
}

TEST(CtlSfpAnswers, ReceivePowerInMilliwattsAndDbm) {
  ipc::Payload payload(8, 0);
  put(payload, 0, 200.0);
  EXPECT_TRUE(format_response(kDaemon, 15520, answered(payload), false)
                  .ends_with("(8 bytes)\n  received power 0.02 mW (-16.99 dBm), 200 in 0.1 uW units"));
  const auto json = format_response(kDaemon, 15520, answered(payload), true);
  EXPECT_NE(json.find(R"("decoded":{"rx_power":200.0,"rx_power_mw":0.02,"rx_power_dbm":-16.98970004336)"),
            std::string::npos)
      << json;
  put(payload, 0, -3.0);
  EXPECT_TRUE(format_response(kDaemon, 15520, answered(payload), false)
                  .ends_with("received power -0.0003 mW (no light), -3 in 0.1 uW units"));
  EXPECT_TRUE(
      format_response(kDaemon, 15520, answered({1, 2, 3}), false).ends_with("malformed answer: 3 bytes, expected 8"));
}

}  // namespace
}  // namespace xpon::system_mgr::ctl
