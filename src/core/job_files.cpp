#include "core/job_files.h"

#include "base/json_members.h"

#include <algorithm>
#include <boost/algorithm/string/erase.hpp>
#include <utility>

namespace kest {

bool IsJobFileName(const std::string &name) {
    return !name.empty() && name.front() != '.';
}

bool ChargeFile(AccountQuota &quota, std::size_t size) {
    const std::size_t needed = std::max(size, kLeastCharge);
    const bool fits = needed <= quota.bytes;
    quota.bytes -= fits ? needed : std::min(kLeastCharge, quota.bytes);
    return fits;
}

bool ChargeJobs(AccountQuota &quota, std::size_t size, std::size_t jobs) {
    const std::size_t charged = std::max(size, kLeastCharge);
    const std::size_t needed = std::max(charged, jobs * kLeastCharge) - charged;
    const bool fits = needed <= quota.bytes;
    quota.bytes -= fits ? needed : 0;
    return fits;
}

bool ChargeDocument(AccountQuota &quota, std::size_t documentBytes) {
    const bool fits = documentBytes <= quota.documentBytes;
    quota.documentBytes -= fits ? documentBytes : 0;
    return fits;
}

void LeftOut::Add(const std::string &name) {
    ++count_;
    if (named_ == kMostNames)
        return;
    names_ += (named_++ == 0 ? "" : ", ") + name;
}

void LeftOut::AddUnnamed(std::size_t count, bool more) {
    count_ += count;
    more_ = more_ || more;
}

std::string LeftOut::Text() const {
    if (count_ == named_)
        return names_;
    return names_ + " and " + (more_ ? "at least " : "") + std::to_string(count_ - named_) +
           " more";
}

Json::Value DefinitionsOf(Json::Value document) {
    Json::Value definitions(Json::arrayValue);
    if (document.isArray())
        return document;
    if (document.isObject()) {
        document["name"] = "default";
        definitions.append(std::move(document));
    }
    return definitions;
}

std::size_t CountOfDefinitions(const Json::Value &document) {
    if (document.isArray())
        return document.size();
    return document.isObject() ? 1 : 0;
}

bool NameDefinition(Json::Value &definition, const JobDirectory &directory,
                    const std::string &fileBaseName) {
    if (!Member(definition, "name").isString())
        return false;
    if (!directory.account.empty()) {
        definition["user"] = "package";
        definition["package_username"] = directory.account;
    }
    definition["name"] = FullJobName(directory.label, directory.account, fileBaseName,
                                     definition["name"].asString());
    return true;
}

std::string FileBaseName(const std::string &fileName) {
    return boost::algorithm::erase_all_copy(fileName, ".conf");
}

std::string FullJobName(const std::string &source, const std::string &account,
                        const std::string &fileBaseName, const std::string &name) {
    return source + "-" + (account.empty() ? "" : account + "-") + fileBaseName + "-" + name;
}

} // namespace kest
