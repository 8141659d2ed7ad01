#include "Value.h"

namespace dsstore {

std::string_view Value::typeCode() const noexcept {
    switch (kind_) {
    case Kind::null:
        return "";
    case Kind::boolean:
        return "bool";
    case Kind::uint32:
        return "long";
    case Kind::uint16:
        return "shor";
    case Kind::uint64:
        return "comp";
    case Kind::timestamp:
        return "dutc";
    case Kind::fourCC:
        return "type";
    case Kind::string:
        return "ustr";
    case Kind::data:
    case Kind::propertyList:
        return "blob";
    case Kind::bookmark:
        return "book";
    }
    return "";
}

} // namespace dsstore
