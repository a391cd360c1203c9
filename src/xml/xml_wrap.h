// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/xml_errors.h"

#include <libxml/tree.h>

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

namespace korva {

/// Whether a saved document must survive a power failure.
enum class Durability {
    kCached,   ///< another save follows soon: leave it to the kernel
    kFlushed,  ///< on the disk, with its directory entry, when the save returns
};

/// An XML document. What is parsed stands alone: nothing outside of it is loaded, and a document that
/// declares entities or attributes of its own is refused. libxml2 never prints anything.
class tXmlDocument {
  public:
    /// A new, empty document. Throws tError_XmlInternal.
    tXmlDocument();
    /// Reads a file, see readFromFile().
    explicit tXmlDocument(const char* fileName);
    explicit tXmlDocument(const std::filesystem::path& fileName);
    /// Parses the text itself. Throws AssertionFailed when it is empty, else tError_ParseFile.
    explicit tXmlDocument(const std::string& content);
    tXmlDocument(const tXmlDocument&) = delete;
    tXmlDocument& operator=(const tXmlDocument&) = delete;
    virtual ~tXmlDocument();

    /// Writes the bytes that libxml2's xmlSaveFile() would write, but fails when not all of them arrive:
    /// throws tError_SaveFile, AssertionFailed for a null or empty name.
    virtual void saveToFile(const char* fileName) const;
    virtual void saveToFile(const std::string& fileName) const;
    virtual void saveToStdout() const;

    /// Replaces `path` as a whole by a file of mode 0600 that belongs to the panel's account: readers see the
    /// old document or the new one. Throws CantCreateTempFile, tError_SaveFile, CantTakeFileOwnership (also
    /// when there is no such account) and CantRenameFile. A temporary file that did
    /// not get its final name stays beside `path`. A link or FIFO that somebody puts in the place of the
    /// temporary file is neither followed nor waited for.
    void saveToFileAtomically(const std::filesystem::path& path, Durability durability) const;
    /// Throws tError_SaveFile when the stream fails.
    void saveToStream(std::ostream& stream) const;
    /// Writes into the buffer and closes it, also on failure. The buffer's encoder is to be the one of the
    /// document's encoding. Throws tError_SaveFile.
    void saveToBuffer(xmlOutputBufferPtr outputBuffer) const;

    /// Throws AssertionFailed for a null or empty name, tError_WrongInputFile when it is not a regular file,
    /// and tError_ParseFile with libxml2's messages.
    void readFromFile(const char* fileName);
    /// Throws tError_XmlInternal.
    void createNewDoc();

    const std::shared_ptr<xmlDoc>& doc() const { return doc_; }

  protected:
    /// How saveToFileAtomically() gives the finished file its final name: by default it replaces what has it.
    /// Returns 0, or the errno value.
    virtual int putInPlace(const std::string& temporary, const std::string& path) const;

  private:
    std::shared_ptr<xmlDoc> doc_;
};

/// A document with a root element of a known name. Nodes belong to the document; text and values may be any
/// bytes, what XML cannot hold becomes U+FFFD. Helpers that make nodes throw tError_XmlInternal when memory
/// is short.
class tXmlDvxDocument : public tXmlDocument {
  public:
    using tXmlDocument::tXmlDocument;

    /// For a document that was read. Throws tError_EmptyDoc and tError_WrongDoc.
    void initFileDoc(const std::string& rootName);
    /// For a new document. Throws tError_XmlInternal.
    void initNewDoc(const std::string& rootName);

    /// Null until one of the above.
    xmlNodePtr root() const { return root_; }

    xmlNodePtr newChild(xmlNodePtr parent, const std::string& name);
    /// With a null `parent` nothing is made and null is returned.
    xmlNodePtr newTextChild(xmlNodePtr parent, const std::string& name, const std::string& text);
    xmlNodePtr newCDataBlock(xmlNodePtr parent, const std::string& text);
    /// Returns the text node that now holds the text: adjacent ones are merged.
    xmlNodePtr newText(xmlNodePtr parent, const std::string& text);
    /// Replaces an earlier value.
    void addAttribute(xmlNodePtr node, const std::string& name, const std::string& value);

    /// The text directly in the node, without that of elements in it.
    static std::string getNodeText(const xmlNode* node);
    static std::optional<std::string> findAttribute(const xmlNode* node, const std::string& name);
    /// Throws NoSuchAttribute.
    static std::string getAttribute(const xmlNode* node, const std::string& name);
    /// The first such element directly below the root. Throws tError_WrongContent.
    xmlNodePtr getRootNodeChild(const std::string& name) const;
    /// A null `xmlText` equals nothing.
    static bool stringEq(const xmlChar* xmlText, const std::string& string);

  private:
    xmlNodePtr root_ = nullptr;
};

}  // namespace korva
