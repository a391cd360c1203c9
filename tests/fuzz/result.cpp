// SPDX-License-Identifier: Apache-2.0
#include "commons/session.h"
#include "fuzz/error_report.h"
#include "unit/xml/session_dir.h"
#include "xml/xml_errors.h"
#include "xml/xml_log.h"

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

// Stands in for the C library's: the linker takes the symbol of the program first, and a disk would be slow.
extern "C" int fsync(int /*fd*/) {
    return 0;
}

namespace {

using korva::fuzz::require;

KORVA_ERROR_TAG(ForeignText, "Foreign text: %1%")

using Error = korva::Exc<&ForeignText>;

constexpr char kSeparator = '\x1E';
constexpr std::size_t kMostSteps = 100;  // the parser takes no more than 256 elements in one another

/// What the document is to say, in its order.
struct Expected {
    bool success = false;
    std::vector<std::string> descriptions;
    std::vector<std::string> severities;
};

/// Plays an input upon a result log. Each record of it is a letter and a text.
class Player {
  public:
    explicit Player(korva::XmlLog& log) : log_(log) {}

    void play(char step, const std::string& text) {
        switch (step) {
            case 'c':
                cause_.emplace(errorOf(text));
                break;
            case 'e':
                log(errorOf(text), korva::kSeverityError);
                break;
            case 'w':
                log(errorOf(text), korva::kSeverityWarning);
                break;
            case 'o':
                log_.pushObject(text.substr(0, text.find('|')), text.substr(text.find('|') + 1));
                break;
            case 'p':
                popObject();
                break;
            default:
                expected_.success = step == 's';
                log_.setSuccess(expected_.success);
        }
    }

    const Expected& expected() const { return expected_; }

  private:
    Error errorOf(const std::string& text) {
        Error error = cause_ ? Error(text, text, 1, *cause_) % text : Error(text, text, 1) % text;
        cause_.reset();
        return error;
    }

    void log(Error error, korva::Severity severity) {
        error.setSeverity(severity);
        korva::fuzz::requireReport(error);
        log_.log(error);
        for (const korva::ExTraceable* e = &error; e != nullptr;
             e = static_cast<const korva::ExTaggedIncludable*>(e)->inner()) {
            expected_.descriptions.emplace_back(e->what());
            expected_.severities.emplace_back(e->severity() == korva::kSeverityWarning ? "warning" : "error");
        }
    }

    void popObject() {
        const std::size_t depth = log_.getDepth();
        try {
            log_.popObject();
            require(log_.getDepth() + 1 == depth, "an object is closed");
        } catch (const korva::Exc<&korva::NoParentNode>&) {
            require(depth == 0, "only the root cannot be closed");
        }
    }

    korva::XmlLog& log_;
    std::optional<Error> cause_;
    Expected expected_;
};

/// Collects what a document says below `parent`.
void collect(xmlNodePtr parent, Expected& found) {
    for (xmlNodePtr node = xmlFirstElementChild(parent); node != nullptr;
         node = xmlNextElementSibling(node)) {
        if (korva::tXmlDvxDocument::stringEq(node->name, "description")) {
            found.descriptions.push_back(korva::tXmlDvxDocument::getNodeText(node));
        } else if (korva::tXmlDvxDocument::stringEq(node->name, "message")) {
            found.severities.push_back(korva::tXmlDvxDocument::getAttribute(node, "severity"));
            require(korva::tXmlDvxDocument::getAttribute(node, "id").size() == 36, "an error has an id");
        }
        collect(node, found);
    }
}

Expected resultIn(const std::string& path) {
    korva::tXmlDvxDocument document{std::filesystem::path(path)};
    document.initFileDoc("execution-result");
    Expected found;
    found.success = korva::tXmlDvxDocument::getAttribute(document.root(), "status") == "success";
    collect(document.root(), found);
    return found;
}

void playAll(const std::string& input, Player& player) {
    std::size_t begin = 0;
    for (std::size_t steps = 0; begin < input.size() && steps < kMostSteps; ++steps) {
        const std::size_t end = std::min(input.find(kSeparator, begin), input.size());
        if (end > begin) {
            player.play(input[begin], input.substr(begin + 1, end - begin - 1));
        }
        begin = end + 1;
    }
}

}  // namespace

/// The input tells what happens in a run: records of a letter and a text, separated by U+001E.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const korva::test::SessionDir session;
    const std::string path = korva::theSession->getResultFileName();
    ::unlink(path.c_str());
    korva::XmlLog log("");
    Player player(log);
    playAll(korva::fuzz::textOf(data, size), player);
    log.close();
    const Expected found = resultIn(path);
    require(found.success == player.expected().success, "the status is told");
    require(found.descriptions == player.expected().descriptions, "each message is read as it was written");
    require(found.severities == player.expected().severities, "each severity is told");
    return 0;
}
