// SPDX-License-Identifier: Apache-2.0
#include "tallowick/dump_selection.h"

#include "commons/secret_mask.h"
#include "xml/log.h"
#include "xml/xml_errors.h"
#include "xml/xml_parse.h"
#include "xml/xml_reader.h"

#include <fstream>
#include <iterator>
#include <tuple>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

class tTallowickXmlDocument : public tXmlDocument {
  public:
    explicit tTallowickXmlDocument(const std::string& path) : tXmlDocument(path.c_str()) {}
};

/// Collects the texts of nodes; the separator is a comma, in spite of the name.
class tPeriodSeparatedListOperator : public tXmlOperator {
  public:
    explicit tPeriodSeparatedListOperator(std::string& list) : list_(list) {}

    // The nodes are texts and CDATA sections. Not xmlNodeGetContent(): what it finds no memory for would be
    // left out of the selection as if it were empty.
    void act(xmlNodePtr node) override {
        const auto* const content = reinterpret_cast<const char*>(node->content);
        if (content == nullptr || *content == '\0') {
            return;
        }
        if (count_ > 0) {
            list_ += ",";
        }
        list_ += content;
        ++count_;
    }

  private:
    std::string& list_;
    int count_ = 0;
};

xmlNodePtr rootOf(const tXmlDocument& document) {
    return xmlDocGetRootElement(document.doc().get());
}

bool selectsAnything(const tXmlDocument& document, const char* expression) {
    return static_cast<bool>(tXPathExpr(document, expression, rootOf(document)));
}

std::string stringValue(const tXmlDocument& document, const char* expression) {
    return tXPathExpr(document, expression, rootOf(document)).str();
}

void collectNames(const tXmlDocument& document, const char* expression, std::string& list) {
    const tXPathExpr names(document, expression, rootOf(document));
    if (names) {
        tPeriodSeparatedListOperator collect(list);
        foreach_xmlnode(names, collect, &xmlErrorFunc);
    }
}

void appendList(const std::string& given, std::string& list) {
    if (given.empty()) {
        return;
    }
    if (!list.empty()) {
        list += ",";
    }
    list += given;
}

// The messages of the parser quote lines of the file, cut to a length of its own: secrets have to go before.
void throwMaskedIfItQuotesSecrets(const config& cfg) {
    Secrets secrets;
    secrets.add(cfg.password);
    secrets.add(cfg.sudo_password);
    std::ifstream file(cfg.selected_objects_file);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (isConverted(text)) {
        throw KORVA_EXC(tError_ParseFile) % cfg.selected_objects_file %
            "It is not in UTF-8, so nothing of it is quoted\n";
    }
    const std::string masked = secrets.mask(text);
    if (masked != text) {
        std::string messages;
        std::ignore = parseXmlText(masked, messages);
        throw KORVA_EXC(tError_ParseFile) % cfg.selected_objects_file % messages;
    }
}

// A migration agent that fetches content by rsync connects to the source host by itself.
void addRsyncTransport(const config& cfg, DumperInput& input) {
    const std::string port = cfg.port == -1 ? "" : std::to_string(cfg.port);
    for (const std::string& line : {cfg.host, cfg.login, cfg.password, port}) {
        input.stdinText += line + "\n";
    }
    input.arguments.emplace_back("--content-transport=rsync");
}

}  // namespace

DumperInput buildDumperInput(const config& cfg) {
    DumperInput input;
    if (cfg.content_transport == "rsync") {
        addRsyncTransport(cfg, input);
    }
    input.arguments.emplace_back("--migration-mode");
    if (cfg.action == kDumpAll) {
        // Everything means everything: neither the selection nor its flags reach the dumper.
        input.arguments.emplace_back("--dump-all");
    } else {
        prepareDumpOptions(cfg, input.arguments, input.stdinText);
    }
    return input;
}

void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& stdinText) {
    std::string domains;
    std::string clients;
    std::string resellers;
    opt_backup_filter filter = kFilterNone;
    opt_backup_compress compress = kCompressNotGiven;
    bool server = false;
    bool adminInfo = false;
    bool noLicense = false;
    if (!cfg.selected_objects_file.empty()) {
        try {
            parseSelectedObjectsFile(cfg.selected_objects_file, domains, clients, resellers, filter, compress,
                                     server, adminInfo, noLicense);
        } catch (const Exc<&tError_ParseFile>&) {
            throwMaskedIfItQuotesSecrets(cfg);
            throw;
        }
    }
    getSelectedObjectsFromConfig(cfg, domains, clients, resellers, filter, compress, server, adminInfo,
                                 noLicense);

    const char* separator = "";
    const auto addList = [&](const char* argument, const std::string& list) {
        if (!list.empty()) {
            arguments.emplace_back(argument);
            stdinText += separator + list;
            separator = "\n";
        }
    };
    const auto addFlag = [&](const char* argument, bool given) {
        if (given) {
            arguments.emplace_back(argument);
        }
    };
    addList("--dump-domains=-", domains);
    addList("--dump-clients=-", clients);
    addList("--dump-resellers=-", resellers);
    addFlag("--only-mail", filter == kFilterOnlyMail);
    addFlag("--only-hosting", filter == kFilterOnlyHosting);
    addFlag("--no-compress", compress == kCompressNone);
    addFlag("--include-app-distrib", true);
    addFlag("--server", server);
    addFlag("--admin-info", adminInfo);
    addFlag("--no-license", noLicense);
}

void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compress, bool& server, bool& adminInfo, bool& license) {
    const tTallowickXmlDocument document(path);
    collectNames(document, "//domain/name/text()", domains);
    collectNames(document, "//client/name/text()", clients);
    collectNames(document, "//reseller/name/text()", resellers);
    server = selectsAnything(document, "//server");
    license = selectsAnything(document, "//server/license");
    adminInfo = selectsAnything(document, "//admin-info");

    const std::string filterName = stringValue(document, "/*/parameters/@filter");
    if (filterName == "only-mail") {
        filter = kFilterOnlyMail;
    } else if (filterName == "only-phosting") {  // spelled so in the panel's files
        filter = kFilterOnlyHosting;
    }
    const std::string compression = stringValue(document, "/*/parameters/@compression-level");
    if (compression == "do-not-compress") {
        compress = kCompressNone;
    } else if (compression == "standard") {
        compress = kCompressStandard;
    }
}

void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compress, bool& server, bool& adminInfo,
                                  bool& noLicense) {
    appendList(cfg.domains, domains);
    appendList(cfg.clients, clients);
    appendList(cfg.resellers, resellers);
    if (cfg.filter != kFilterNone) {
        filter = cfg.filter;
    }
    if (cfg.compress != kCompressNotGiven) {
        compress = cfg.compress;
    }
    server = cfg.server;
    adminInfo = cfg.admin_info;
    noLicense = cfg.no_license;
}

void xmlErrorFunc(const ExTraceable& error) {
    theDebugLog->log(error);
}

}  // namespace korva
