// SPDX-License-Identifier: Apache-2.0
#include "agent_check/list_rules.h"

#include "agent_check/deployment.h"
#include "agent_check/documents.h"
#include "agent_check/interruption.h"
#include "commons/checksum.h"
#include "commons/session.h"
#include "tallowick/content_list.h"
#include "tallowick/content_target.h"
#include "tallowick/retrieval_errors.h"
#include "xml/xml_errors.h"

#include <boost/algorithm/string/predicate.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <optional>

namespace korva::agent_check {
namespace {

constexpr std::size_t kDigitsOfSum = 32;
constexpr const char* kHexDigits = "0123456789abcdefABCDEF";

std::optional<std::int64_t> sizeOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return status.st_size;
}

// The other end of a FIFO is not to be waited for, so only regular files get here.
std::string sumOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return file ? countMd5Sum(file) : "";
}

std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

/// Judges the entries one by one.
class ListCheck {
  public:
    ListCheck(const std::string& agentDir, const Login& login, Report& report)
        : agentDir_(agentDir),
          login_(login),
          target_(theSession->getCidFilesDir(), panelAccount()),
          paths_(report, rules::kListPaths),
          names_(report, rules::kListNames),
          files_(report, rules::kListFiles),
          readable_(report, rules::kListReadable),
          sizes_(report, rules::kListSizes),
          sums_(report, rules::kListSums),
          sumCase_(report, rules::kListSumCase) {}

    void check(const DumpFile& file) {
        checkInterruption();
        checkNames(file.name);
        if (const std::optional<std::string> reason = target_.refusal(file.name)) {
            paths_.problem(quoted(file.name) + " is refused: " + *reason);
            return;
        }
        const std::string path = agentDir_ + "/" + file.name;
        const std::optional<std::int64_t> size = sizeOf(path);
        if (!size) {
            files_.problem(quoted(file.name) + " is no file in the agent directory");
            return;
        }
        if (!liesBelow(agentDir_, file.name)) {
            files_.problem(quoted(file.name) +
                           " lies outside of the agent directory, and what is fetched is removed");
            return;
        }
        if (!login_.mayRead(agentDir_, file.name)) {
            readable_.problem(quoted(file.name) + " cannot be read by the login");
            return;
        }
        if (file.hasSize && file.size != *size) {
            sizes_.problem(quoted(file.name) + " has " + std::to_string(*size) + " bytes instead of " +
                           std::to_string(file.size));
        }
        checkSum(file, path);
    }

    bool tell(std::size_t count) {
        const std::string all = std::to_string(count) + (count == 1 ? " file" : " files");
        const bool canBeFetched[] = {
            paths_.tell("no path is refused"), names_.tell("the last components of all paths differ"),
            files_.tell(all + ", all of them there"), readable_.tell("the login can read them")};
        sizes_.tell("the sizes are true");
        sums_.tell("the sums are true");
        sumCase_.tell("the sums are in lower case");
        return std::all_of(std::begin(canBeFetched), std::end(canBeFetched), [](bool good) { return good; });
    }

  private:
    void checkNames(const std::string& path) {
        if (!seen_.insert(path).second) {
            names_.problem(quoted(path) + " is listed twice: after the first time it is gone");
        } else if (!lastComponents_.insert(lastComponent(path)).second) {
            names_.warning(quoted(path) + " ends as another path does");
        }
    }

    void checkSum(const DumpFile& file, const std::string& path) {
        if (file.md5.empty()) {
            sums_.warning(quoted(file.name) + " has none, so that its size alone is compared");
            return;
        }
        if (file.md5.size() != kDigitsOfSum || file.md5.find_first_not_of(kHexDigits) != std::string::npos) {
            sums_.problem(quoted(file.md5) + " of " + quoted(file.name) + " is no MD5 sum");
            return;
        }
        const std::string sum = sumOf(path);
        if (!boost::algorithm::iequals(sum, file.md5)) {
            sums_.problem(quoted(file.name) + " has the sum " + sum + " instead of " + file.md5);
        } else if (sum != file.md5) {
            sumCase_.warning(quoted(file.name) + " has the sum " + file.md5);
        }
    }

    const std::string& agentDir_;
    const Login& login_;
    ContentTarget target_;
    Findings paths_;
    Findings names_;
    Findings files_;
    Findings readable_;
    Findings sizes_;
    Findings sums_;
    Findings sumCase_;
    std::set<std::string> seen_;
    std::set<std::string> lastComponents_;
};

void checkDumpIsListed(const ReadList& list, Report& report) {
    Findings findings(report, rules::kListDump);
    const std::set<std::string> paths = list.paths();
    if (!paths.contains("dump.xml")) {
        findings.problem("dump.xml is not listed, where dump-name leads to");
    }
    if (!paths.contains("migration.result")) {
        findings.warning("migration.result is not listed, where migration-result-name leads to");
    }
    findings.tell("dump.xml and migration.result are listed");
}

}  // namespace

std::set<std::string> ReadList::paths() const {
    std::set<std::string> found;
    for (const DumpFile& file : files) {
        found.insert(file.name);
    }
    return found;
}

bool readList(const CommandResult& result, ReadList& list, const Rule*& broken, std::string& reason) {
    if (result.exceeded) {
        broken = &rules::kListLength;
        reason = "the list is larger than 16 MiB";
        return false;
    }
    if (const std::optional<std::size_t> noise = noiseBefore(result.out, "contentlist")) {
        broken = &rules::kListNoise;
        reason = quoted(result.out.substr(0, *noise)) + " stands before the list";
        return false;
    }
    try {
        const std::unique_ptr<AgentFileList> read = readContentList(result.out);
        list.files = read->getFileList();
        list.total = totalOfList(*read, [](const std::string& path) { return path; });
        return true;
    } catch (const Exc<&CantRetrieveContentList>& error) {
        broken = &rules::kListNumbers;
        reason = error.what();
    } catch (const Exc<&NoSuchAttribute>& error) {
        broken = &rules::kListNumbers;
        reason = error.what();
    } catch (const Exc<&tError_WrongContent>& error) {
        broken = &rules::kListLength;
        reason = error.what();
    } catch (const ExTraceable& error) {
        broken = &rules::kListDocument;
        reason = result.out.empty() ? "nothing was printed" : error.what();
    }
    return false;
}

bool checkList(const ReadList& list, const std::string& agentDir, const Login& login, Report& report) {
    ListCheck check(agentDir, login, report);
    for (const DumpFile& file : list.files) {
        check.check(file);
    }
    const bool canBeFetched = check.tell(list.files.size());
    Findings total(report, rules::kListTotal);
    if (const std::string fault = faultOfTotal(list, agentDir); !fault.empty()) {
        total.problem(fault);
    }
    total.tell("the total is " + std::to_string(list.total) + " bytes");
    checkDumpIsListed(list, report);
    return canBeFetched;
}

// Sizes as they are listed: where one is wrong that is told by itself.
std::string faultOfTotal(const ReadList& list, const std::string& agentDir) {
    std::int64_t sum = 0;
    for (const DumpFile& file : list.files) {
        const std::int64_t size = file.hasSize ? file.size : sizeOf(agentDir + "/" + file.name).value_or(0);
        if (__builtin_add_overflow(sum, size, &sum)) {
            return "the sizes of the files are more than can be counted";
        }
    }
    return sum == list.total ? ""
                             : "the total is " + std::to_string(list.total) +
                                   " bytes, the files together have " + std::to_string(sum);
}

}  // namespace korva::agent_check
