#include "xpon/service/service.hpp"

#include <gtest/gtest.h>

namespace xpon::service {
namespace {

using core::Error;

TEST(ServiceBase, FamilyBasesNameTheirFamily) {
  EXPECT_EQ(ServiceBaseFC().family(), "FC");
  EXPECT_EQ(ServiceBaseLC().family(), "LC");
  EXPECT_EQ(ServiceBaseKorvan().family(), "Korvan");
}

TEST(ServiceBase, RunMarksRunningAndStopMarksStopped) {
  ServiceBaseFC service;
  const ServiceCtx ctx;
  EXPECT_FALSE(service.is_running());
  ASSERT_TRUE(service.run(ctx));
  EXPECT_TRUE(service.is_running());
  ASSERT_TRUE(service.stop(ctx));
  EXPECT_FALSE(service.is_running());
}

TEST(ServiceBase, SecondRunWithoutStopIsAlready) {
  ServiceBaseLC service;
  const ServiceCtx ctx;
  ASSERT_TRUE(service.run(ctx));
  const auto again = service.run(ctx);
  ASSERT_TRUE(again.has_error());
  EXPECT_EQ(again.error().error, Error::Already);
}

TEST(ServiceBase, StopWithoutRunSucceeds) {
  ServiceBaseKorvan service;
  EXPECT_TRUE(service.stop(ServiceCtx{}));
  EXPECT_FALSE(service.is_running());
}

TEST(ServiceBase, ChangesAndHealthCheckSucceedWithoutEffect) {
  ServiceBaseFC service;
  ServiceCtx ctx;
  ctx.master_slot = 3;
  EXPECT_TRUE(service.config_change(ctx, {Config_change{80, 1, 0}}));
  EXPECT_TRUE(service.config_change(ctx, {}));
  EXPECT_TRUE(service.master_change(ctx));
  EXPECT_TRUE(service.health_check(ctx));
  EXPECT_FALSE(service.is_running());
}

TEST(ServiceBase, KorvanMasterChangeSucceedsAndDoesNothing) {
  ServiceBaseKorvan service;
  ServiceCtx ctx;
  ctx.master_slot = 1;
  ASSERT_TRUE(service.run(ctx));
  EXPECT_TRUE(service.master_change(ctx));
  EXPECT_TRUE(service.is_running());
}

TEST(ServiceCtx, MasterIsTheBoardWhoseSlotWasAnnounced) {
  ServiceCtx ctx;
  ctx.own_address = 0x00190003;
  EXPECT_EQ(ctx.own_slot(), 3);
  EXPECT_FALSE(ctx.is_master());
  ctx.master_slot = 4;
  EXPECT_FALSE(ctx.is_master());
  ctx.master_slot = 3;
  EXPECT_TRUE(ctx.is_master());
}

}  // namespace
}  // namespace xpon::service
