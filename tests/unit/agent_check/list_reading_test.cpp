// SPDX-License-Identifier: Apache-2.0
#include "agent_check/list_rules.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace korva::agent_check {
namespace {

/// The name of the rule that an output breaks.
std::string brokenBy(const std::string& out, bool exceeded = false) {
    CommandResult result;
    result.out = out;
    result.exceeded = exceeded;
    ReadList list;
    const Rule* broken = nullptr;
    std::string reason;
    const bool isRead = readList(result, list, broken, reason);
    EXPECT_EQ(isRead, broken == nullptr);
    EXPECT_EQ(isRead, reason.empty());
    return broken == nullptr ? "" : broken->name;
}

ReadList listOf(const std::string& out) {
    CommandResult result;
    result.out = out;
    ReadList list;
    const Rule* broken = nullptr;
    std::string reason;
    EXPECT_TRUE(readList(result, list, broken, reason)) << reason;
    return list;
}

TEST(ReadList, TakesWhatTheProgramTakes) {
    const ReadList list =
        listOf("<contentlist size='3'><file size='1'>a</file><file size='2'>b</file></contentlist>");
    EXPECT_EQ((std::set<std::string>{"a", "b"}), list.paths());
    EXPECT_EQ(3, list.total);
    EXPECT_EQ("", brokenBy("<contentlist size='0'/>"));
}

TEST(ReadList, NamesTheRuleThatIsBroken) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "list-document"},
        {"<contentlist size='0'>", "list-document"},
        {"<list size='0'/>", "list-document"},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><contentlist size='0'/>", "list-document"},
        {"<?xml version='1.0'?><!DOCTYPE a [<!ENTITY b 'c'>]><contentlist size='0'/>", "list-document"},
        {"Welcome\n<contentlist size='0'/>", "list-noise"},
        {"<!-- hello -->you\n<contentlist size='0'/>", "list-noise"},
        {"<contentlist/>", "list-numbers"},
        {"<contentlist size='x'/>", "list-numbers"},
        {"<contentlist size='-1'/>", "list-numbers"},
        {"<contentlist size='18446744073709551615'/>", "list-numbers"},
        {"<contentlist size='0'><file size='1k'>a</file></contentlist>", "list-numbers"},
        {"<contentlist size='0'><file size='-1'>a</file></contentlist>", "list-numbers"},
    };
    for (const auto& [text, rule] : cases) {
        EXPECT_EQ(rule, brokenBy(text)) << text;
    }
    EXPECT_EQ("list-length", brokenBy("<contentlist size='0'/>", true));
}

TEST(FaultOfTotal, TakesTheRealSizeWhereNoneIsListed) {
    const test::TempDir dir;
    test::writeFile(dir / "b", "four");
    const std::string files = "<file size='1'>a</file><file>b</file>";
    EXPECT_EQ("", faultOfTotal(listOf("<contentlist size='5'>" + files + "</contentlist>"), dir.path()));
    EXPECT_EQ("the total is 1 bytes, the files together have 5",
              faultOfTotal(listOf("<contentlist size='1'>" + files + "</contentlist>"), dir.path()));
}

TEST(FaultOfTotal, DoesNotWrapAround) {
    const std::string most = "<file size='9223372036854775807'>a</file>";
    EXPECT_NE("",
              faultOfTotal(listOf("<contentlist size='0'>" + most + most + "</contentlist>"), "/nowhere"));
}

}  // namespace
}  // namespace korva::agent_check
