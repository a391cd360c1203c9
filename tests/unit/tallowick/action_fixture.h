// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/session.h"
#include "fakes/fake_migration_status.h"
#include "fakes/fake_ssh.h"
#include "support/recording_logs.h"
#include "support/temp_dir.h"
#include "tallowick/options.h"

#include <gtest/gtest.h>

namespace korva::test {

/// What an action needs around it: a session, a log, a source host and a status document, and the options of
/// a login without sudo.
class ActionFixture : public testing::Test {
  protected:
    ActionFixture() {
        cfg.host = "source.example";
        cfg.login = "user";
        cfg.password = "login word";
        cfg.agent_dir = "/agent";
    }

    TempDir dir;
    SessionLifetimeController session{dir / "session"};
    RecordingDebugLog debugLog;
    FakeMigrationStatus status;
    FakeSsh ssh;
    config cfg;
};

}  // namespace korva::test
