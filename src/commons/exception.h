// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/format.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace korva {

/// Receives the parts of an error, outermost error first. Implemented by whoever renders errors.
class ExInfoVisitor {
  public:
    virtual ~ExInfoVisitor() = default;
    virtual void setCode(const std::string& code) = 0;
    virtual void setId(const std::string& id) = 0;
    virtual void setMessage(const std::string& message) = 0;
    virtual void setContext(const std::string& context) = 0;
    virtual void setFile(const std::string& file) = 0;
    virtual void setLine(int line) = 0;
    /// What follows belongs to the error that caused the one described so far.
    virtual void advanceToInnerException() = 0;
    virtual void setSeverity(int /*severity*/) {}
};

/// What can be copied without its type being known.
class Cloneable {
  public:
    virtual ~Cloneable() = default;
    /// A heap copy of the most derived type, owned by the caller.
    virtual Cloneable* clone() const = 0;
};

/// What tells its parts to a visitor.
class ExVisitable {
  public:
    virtual ~ExVisitable() = default;
    virtual void accept(ExInfoVisitor& visitor) const = 0;
};

/// How serious an error is; the values are those of the panel's own logs.
enum Severity : int { kSeverityError = 3, kSeverityWarning = 4 };

/// Root of the program's errors: a code, a message made from a positional format ("%1%"), an identifier
/// and a severity.
class ExTraceable : public Cloneable, public ExVisitable, public std::runtime_error {
  public:
    /// `code` is the name under which readers of the result document know this kind of error.
    ExTraceable(const boost::format& messageFormat, const std::string& code);

    ExTraceable* clone() const override;
    void accept(ExInfoVisitor& visitor) const override;

    /// The message with its arguments, as valid XML text in UTF-8. A position that got no argument stays
    /// as it is written in the format: reporting an error never becomes another error.
    const char* what() const noexcept override;

    /// 36 characters and a NUL; see newUUID().
    const std::string& id() const { return id_; }
    int severity() const { return severity_; }
    void setSeverity(int severity) { severity_ = severity; }

  protected:
    /// Feeds the next message argument; throws boost::io::too_many_args when the format has no place for it.
    template <typename T>
    void feed(const T& argument) {
        format_ % argument;
    }

  private:
    boost::format format_;
    mutable std::string message_;
    std::string id_;
    int severity_ = kSeverityError;
};

/// An error that may carry the error that caused it.
class ExTaggedIncludable : public ExTraceable {
  public:
    ExTaggedIncludable(const boost::format& messageFormat, const std::string& code);
    /// Keeps a copy of `inner`.
    ExTaggedIncludable(const boost::format& messageFormat, const std::string& code, const ExTraceable& inner);
    ExTaggedIncludable(const ExTaggedIncludable& other);
    ExTaggedIncludable& operator=(const ExTaggedIncludable&) = delete;
    ~ExTaggedIncludable() override = default;

    ExTaggedIncludable* clone() const override;
    void accept(ExInfoVisitor& visitor) const override;

    /// The included error, or null.
    const ExTraceable* inner() const { return inner_.get(); }

  private:
    std::unique_ptr<ExTraceable> inner_;
};

/// What a tag function says of its kind of error.
struct ErrorKind {
    const char* code;
    const char* format;
};

/// One kind of error. `Tag` is a function whose address makes the type distinct, so that callers catch
/// exactly one kind.
template <ErrorKind (*Tag)(bool)>
class Exc : public ExTaggedIncludable {
  public:
    /// `context` is the signature of the raising function, `file` the name of its component.
    Exc(std::string context, std::string file, int line)
        : ExTaggedIncludable(boost::format(Tag(true).format), Tag(true).code),
          context_(std::move(context)),
          file_(std::move(file)),
          line_(line) {}

    Exc(std::string context, std::string file, int line, const ExTraceable& inner)
        : ExTaggedIncludable(boost::format(Tag(true).format), Tag(true).code, inner),
          context_(std::move(context)),
          file_(std::move(file)),
          line_(line) {}

    Exc* clone() const override { return new Exc(*this); }

    void accept(ExInfoVisitor& visitor) const override {
        visitor.setContext(context_);
        visitor.setFile(file_);
        visitor.setLine(line_);
        ExTaggedIncludable::accept(visitor);
    }

    /// Feeds the next message argument. Returns the most derived type: `throw` copies what it is given.
    template <typename T>
    Exc& operator%(const T& argument) {
        feed(argument);
        return *this;
    }

  private:
    std::string context_;
    std::string file_;
    int line_;
};

}  // namespace korva

/// Declares the tag of a kind of error: its code is the name of the tag.
#define KORVA_ERROR_TAG(Tag, messageFormat) \
    inline ::korva::ErrorKind Tag(bool) {   \
        return {#Tag, messageFormat};       \
    }

/// An error of the given tag, raised here. The file that uses it defines `kSourceName`, the component's name.
#define KORVA_EXC(Tag) \
    (::korva::Exc<&Tag>(static_cast<const char*>(__PRETTY_FUNCTION__), kSourceName, __LINE__))

/// The same, including the error that caused it.
#define KORVA_EXC_CAUSED_BY(Tag, cause) \
    (::korva::Exc<&Tag>(static_cast<const char*>(__PRETTY_FUNCTION__), kSourceName, __LINE__, (cause)))
