// One emulated device for in-process tests of the cloning handlers: private
// network, mount and IPC namespaces, br0 with a peer end, and a database
// seeded with the registrar's settings (which also takes what an enrollee
// saves).
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace kestr::test {

class DeviceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KESTR_ENTER_NAMESPACES({.ipc = true});
        db_ = std::make_unique<XmldbdProcess>(seed_path("registrar.xml"));
        ASSERT_TRUE(db_->ok());
        peer_ = std::make_unique<PeerPort>();
        ASSERT_TRUE(peer_->ok());
    }
    std::unique_ptr<XmldbdProcess> db_;
    std::unique_ptr<PeerPort> peer_;
};

}  // namespace kestr::test
