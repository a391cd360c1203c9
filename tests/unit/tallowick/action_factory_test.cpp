// SPDX-License-Identifier: Apache-2.0
#include "tallowick/action_factory.h"

#include "support/files.h"
#include "tallowick/retrieve_content.h"
#include "tallowick/retrieve_dump.h"
#include "tallowick/send_agent.h"
#include "unit/tallowick/action_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

namespace korva {
namespace {

using testing::IsEmpty;

class ActionFactory : public test::ActionFixture {
  protected:
    template <typename Expected>
    void expectAction(std::int32_t id, bool withStatus) {
        cfg.action = id;
        status.calls.clear();
        const std::unique_ptr<Action> action = getActionByIdInternal(cfg);
        EXPECT_NE(nullptr, dynamic_cast<Expected*>(action.get())) << id;
        EXPECT_EQ(withStatus, !status.calls.empty()) << id;
    }
};

TEST_F(ActionFactory, MakesTheActionOfEachIdentifier) {
    expectAction<SendScoutAction>(0, true);
    expectAction<SendAgentAction>(1, true);
    expectAction<GetDumpingStatusAction>(2, true);
    expectAction<RetrieveDumpAction>(3, true);
    expectAction<RetrieveDumpAction>(4, true);
    expectAction<RetrieveContentAction>(5, true);
    expectAction<RemoveAgentAction>(6, false);
    expectAction<RemoveDumpingStatusAction>(7, true);
}

TEST_F(ActionFactory, RejectsEveryOtherIdentifier) {
    for (const std::int32_t id : {-2, -1, 8, 9, 1000}) {
        cfg.action = id;
        try {
            getActionById(cfg);
            FAIL() << "made an action for " << id;
        } catch (const Exc<&UnknownAction>& error) {
            EXPECT_STREQ("Unknown action passed to the function. Probably bug in the options parser",
                         error.what());
        }
    }
    EXPECT_THAT(status.calls, IsEmpty());
}

TEST_F(ActionFactory, ReadsTheSelectionBeforeThereIsAnAction) {
    cfg.action = 3;
    cfg.selected_objects_file = dir / "no such file";
    EXPECT_THROW(getActionById(cfg), Exc<&tError_WrongInputFile>);
    EXPECT_THAT(status.calls, IsEmpty());
}

TEST_F(ActionFactory, GivesTheActionItsConfiguration) {
    cfg.action = 7;
    cfg.agent_dir = dir.path();
    test::writeFile(dir / "dumping-status.xml", "status");
    getActionById(cfg)->execute();
    EXPECT_FALSE(std::filesystem::exists(dir / "dumping-status.xml"));
}

}  // namespace
}  // namespace korva
