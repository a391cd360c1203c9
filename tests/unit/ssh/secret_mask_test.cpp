// SPDX-License-Identifier: Apache-2.0
#include "commons/secret_mask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace korva {
namespace {

using testing::HasSubstr;
using testing::Not;

Secrets secretsOf(const std::vector<std::string>& words) {
    Secrets secrets;
    for (const std::string& word : words) {
        secrets.add(word);
    }
    return secrets;
}

std::string maskInChunks(const Secrets& secrets, const std::vector<std::string>& chunks) {
    SecretMaskStream stream(secrets);
    std::string shown;
    for (const std::string& chunk : chunks) {
        shown += stream.push(chunk);
    }
    return shown + stream.finish();
}

TEST(Secrets, HideEveryOccurrence) {
    EXPECT_EQ("say ******** and ********!", secretsOf({"sesame"}).mask("say sesame and sesame!"));
}

TEST(Secrets, HideAtBothEndsOfTheText) {
    const Secrets secrets = secretsOf({"sesame"});
    EXPECT_EQ("********!", secrets.mask("sesame!"));
    EXPECT_EQ("say ********", secrets.mask("say sesame"));
    EXPECT_EQ("********", secrets.mask("sesame"));
}

TEST(Secrets, LeaveOtherTextAsItIs) {
    const std::string text("se same Sesame sesam\0\x80\xff", 24);
    EXPECT_EQ(text, secretsOf({"sesame"}).mask(text));
}

TEST(Secrets, HideBlankSeparatedPartsOfFourBytesOrMore) {
    const Secrets secrets = secretsOf({"ab cde\tfghi jklmn"});
    EXPECT_EQ("ab", secrets.mask("ab"));
    EXPECT_EQ("cde", secrets.mask("cde"));
    EXPECT_EQ("********", secrets.mask("fghi"));
    EXPECT_EQ("near '********'", secrets.mask("near 'jklmn'"));
    EXPECT_EQ("********", secrets.mask("ab cde\tfghi jklmn"));
}

TEST(Secrets, HideAShortSecretOnlyAsAWhole) {
    EXPECT_EQ("********", secretsOf({"a b"}).mask("a b"));
    EXPECT_EQ("a  b", secretsOf({"a b"}).mask("a  b"));
    EXPECT_EQ("********", secretsOf({"x"}).mask("x"));
}

TEST(Secrets, HideNothingForAnEmptySecret) {
    EXPECT_EQ("text ********", secretsOf({""}).mask("text ********"));
    EXPECT_EQ("", secretsOf({}).mask(""));
    EXPECT_EQ("any", maskInChunks(secretsOf({""}), {"a", "", "ny"}));
}

TEST(Secrets, HideASecretOfBlanksOnly) {
    EXPECT_EQ("a********b c", secretsOf({"   "}).mask("a   b c"));
}

TEST(Secrets, ShowOneMarkForOverlappingOccurrences) {
    EXPECT_EQ("-********-", secretsOf({"abab"}).mask("-ababab-"));
    EXPECT_EQ("-********-", secretsOf({"abcd", "cdef"}).mask("-abcdef-"));
    EXPECT_EQ("-********-", secretsOf({"abcdef", "cd"}).mask("-abcdef-"));
}

TEST(Secrets, ShowOneMarkForAdjacentOccurrencesSoThatNothingTellsTheirLength) {
    EXPECT_EQ("-********-", secretsOf({"sesame"}).mask("-sesamesesame-"));
    EXPECT_EQ("-********-", secretsOf({"open", "sesame"}).mask("-opensesame-"));
}

TEST(Secrets, MayContainAnyBytes) {
    const std::string secret("p\0\xff\x80", 4);
    EXPECT_EQ("<********>", secretsOf({secret}).mask("<" + secret + ">"));
}

TEST(SecretMaskStream, HidesASecretThatIsSplitAnywhere) {
    const Secrets secrets = secretsOf({"sesame"});
    const std::string text = "say sesame!";
    for (std::size_t first = 0; first <= text.size(); ++first) {
        for (std::size_t second = first; second <= text.size(); ++second) {
            EXPECT_EQ("say ********!",
                      maskInChunks(secrets, {text.substr(0, first), text.substr(first, second - first),
                                             text.substr(second)}))
                << first << " " << second;
        }
    }
}

TEST(SecretMaskStream, HidesASecretThatComesByteByByte) {
    const Secrets secrets = secretsOf({"open sesame"});
    SecretMaskStream stream(secrets);
    std::string shown;
    for (const char byte : std::string("open sesam open sesame sesame open")) {
        shown += stream.push(std::string(1, byte));
    }
    EXPECT_EQ("******** sesam ******** ******** ********", shown + stream.finish());
}

TEST(SecretMaskStream, ShowsABeginningThatTurnsOutToBeNoSecret) {
    const Secrets secrets = secretsOf({"sesame"});
    SecretMaskStream stream(secrets);
    EXPECT_EQ("say ", stream.push("say sesa"));
    EXPECT_EQ("sesak", stream.push("k"));
    EXPECT_EQ("", stream.finish());
}

TEST(SecretMaskStream, ShowsAnUnfinishedBeginningAtTheEnd) {
    const Secrets secrets = secretsOf({"sesame"});
    SecretMaskStream stream(secrets);
    EXPECT_EQ("", stream.push("sesam"));
    EXPECT_EQ("sesam", stream.finish());
}

TEST(SecretMaskStream, KeepsNothingBackThatCannotBecomeASecret) {
    const Secrets secrets = secretsOf({"sesame"});
    SecretMaskStream stream(secrets);
    EXPECT_EQ("password: ", stream.push("password: "));
    EXPECT_EQ("********\n", stream.push("sesame\n"));
    EXPECT_EQ("", stream.finish());
}

TEST(SecretMaskStream, ShowsOneMarkForAdjacentSecretsInDifferentChunks) {
    EXPECT_EQ("-********-", maskInChunks(secretsOf({"sesame"}), {"-sesame", "sesame-"}));
}

TEST(SecretMaskStream, HidesTheRestOfASecretThatOverlapsOneAlreadyShownAsAMark) {
    EXPECT_EQ("********-", maskInChunks(secretsOf({"abab"}), {"abab", "ab-"}));
    EXPECT_EQ("********c", maskInChunks(secretsOf({"abcd", "da"}), {"abcd", "ac"}));
}

TEST(SecretMaskStream, ShowsAnEndlessRunOfSecretsAsOneMarkWithoutKeepingItBack) {
    const Secrets secrets = secretsOf({"aaaa"});
    SecretMaskStream stream(secrets);
    EXPECT_EQ("********", stream.push(std::string(65536, 'a')));
    EXPECT_EQ("", stream.push(std::string(65536, 'a')));
    EXPECT_EQ("-", stream.push("-"));
}

TEST(SecretMaskStream, CanBeUsedAnewAfterItsEnd) {
    const Secrets secrets = secretsOf({"sesame"});
    SecretMaskStream stream(secrets);
    EXPECT_EQ("********", stream.push("sesame") + stream.finish());
    EXPECT_EQ("********", stream.push("sesame") + stream.finish());
}

class RandomText {
  public:
    explicit RandomText(unsigned seed) : generator_(seed) {}

    std::size_t upTo(std::size_t most) {
        return std::uniform_int_distribution<std::size_t>(0, most)(generator_);
    }
    std::string text(std::size_t longest) {
        std::string result(upTo(longest), ' ');
        for (char& byte : result) {
            byte = "ab c"[upTo(3)];
        }
        return result;
    }
    std::vector<std::string> chunksOf(const std::string& text) {
        std::vector<std::string> chunks;
        for (std::size_t at = 0; at < text.size();) {
            chunks.push_back(text.substr(at, upTo(7)));
            at += chunks.back().size();
        }
        return chunks;
    }

  private:
    std::mt19937 generator_;
};

TEST(SecretMaskStream, ShowsForAnyChunksWhatIsShownOfTheWhole) {
    for (unsigned seed = 0; seed < 20000; ++seed) {
        RandomText random(seed);
        const Secrets secrets = secretsOf({random.text(9), random.text(4)});
        const std::string text = random.text(60);
        ASSERT_EQ(secrets.mask(text), maskInChunks(secrets, random.chunksOf(text))) << seed;
    }
}

TEST(SecretMaskStream, NeverShowsASecret) {
    for (unsigned seed = 0; seed < 20000; ++seed) {
        RandomText random(seed);
        const std::string first = "a" + random.text(6);
        const std::string second = "b" + random.text(3);
        const Secrets secrets = secretsOf({first, second});
        const std::string shown = maskInChunks(
            secrets, random.chunksOf(random.text(20) + first + second + random.text(20) + first));
        ASSERT_THAT(shown, Not(HasSubstr(first))) << seed;
        ASSERT_THAT(shown, Not(HasSubstr(second))) << seed;
    }
}

}  // namespace
}  // namespace korva
