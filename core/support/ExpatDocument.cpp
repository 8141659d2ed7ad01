#include "ExpatDocument.h"

#include "XMLEncoding.h"

#include <algorithm>
#include <cstddef>

namespace veltra {

namespace {

extern "C" void refuseEntityDeclaration(void* user, const XML_Char*, int, const XML_Char*, int,
                                        const XML_Char*, const XML_Char*, const XML_Char*,
                                        const XML_Char*) {
    XML_StopParser(static_cast<ExpatContext*>(user)->parser, XML_FALSE);
}

// Single-byte encodings expat does not know by name, mapped byte by byte.
extern "C" int readSingleByteEncoding(void*, const XML_Char* name, XML_Encoding* info) {
    const auto map = XMLEncoding::byteMap(name);
    if (!map) {
        return XML_STATUS_ERROR;
    }
    for (std::size_t byte = 0; byte < map->size(); ++byte) {
        info->map[byte] = (*map)[byte];
    }
    info->data = nullptr;
    info->convert = nullptr;
    info->release = nullptr;
    return XML_STATUS_OK;
}

} // namespace

ExpatDocument::ExpatDocument(ExpatContext& context) : parser_(XML_ParserCreate(nullptr)) {
    context.parser = parser_;
    if (parser_ == nullptr) {
        return;
    }
    XML_SetUserData(parser_, &context);
    XML_SetEntityDeclHandler(parser_, refuseEntityDeclaration);
    XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);
    XML_SetUnknownEncodingHandler(parser_, readSingleByteEncoding, nullptr);
}

ExpatDocument::~ExpatDocument() {
    if (parser_ != nullptr) {
        XML_ParserFree(parser_);
    }
}

std::string ExpatDocument::errorText() const {
    if (parser_ == nullptr) {
        return "the XML reader could not start";
    }
    const auto* reason = XML_ErrorString(XML_GetErrorCode(parser_));
    return "line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ", column " +
           std::to_string(XML_GetCurrentColumnNumber(parser_) + 1) + ": " +
           (reason != nullptr ? reason : "stopped");
}

bool ExpatDocument::parse(std::string_view document) {
    if (parser_ == nullptr) {
        return false;
    }
    // Expat takes int lengths; large documents go in slices.
    constexpr std::size_t slice = 16u << 20;
    std::size_t offset = 0;
    do {
        const auto length = std::min(slice, document.size() - offset);
        const bool last = offset + length == document.size();
        if (XML_Parse(parser_, document.data() + offset, static_cast<int>(length),
                      last ? XML_TRUE : XML_FALSE) != XML_STATUS_OK) {
            return false;
        }
        offset += length;
    } while (offset < document.size());
    return true;
}

} // namespace veltra
