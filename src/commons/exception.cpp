// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"

#include "commons/uuid.h"
#include "commons/xml_text.h"

namespace korva {

ExTraceable::ExTraceable(const boost::format& messageFormat, const std::string& code)
    : std::runtime_error(code), format_(messageFormat), id_(newUUID()) {}

ExTraceable* ExTraceable::clone() const {
    return new ExTraceable(*this);
}

void ExTraceable::accept(ExInfoVisitor& visitor) const {
    visitor.setCode(std::runtime_error::what());
    visitor.setId(id_);
    visitor.setSeverity(severity_);
    visitor.setMessage(what());
}

const char* ExTraceable::what() const noexcept {
    if (!message_.empty()) {
        return message_.c_str();
    }
    try {
        boost::format filled = format_;
        for (int position = filled.fed_args() + 1; position <= filled.expected_args(); ++position) {
            filled % std::string("%").append(std::to_string(position)).append("%");
        }
        message_ = toXmlText(filled.str());
        return message_.c_str();
    } catch (...) {  // out of memory: the code alone still tells what happened
        return std::runtime_error::what();
    }
}

ExTaggedIncludable::ExTaggedIncludable(const boost::format& messageFormat, const std::string& code)
    : ExTraceable(messageFormat, code) {}

ExTaggedIncludable::ExTaggedIncludable(const boost::format& messageFormat, const std::string& code,
                                       const ExTraceable& inner)
    : ExTraceable(messageFormat, code), inner_(inner.clone()) {}

ExTaggedIncludable::ExTaggedIncludable(const ExTaggedIncludable& other)
    : ExTraceable(other), inner_(other.inner_ ? other.inner_->clone() : nullptr) {}

ExTaggedIncludable* ExTaggedIncludable::clone() const {
    return new ExTaggedIncludable(*this);
}

void ExTaggedIncludable::accept(ExInfoVisitor& visitor) const {
    ExTraceable::accept(visitor);
    if (inner_) {
        visitor.advanceToInnerException();
        inner_->accept(visitor);
    }
}

}  // namespace korva
