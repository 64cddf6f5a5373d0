// Type names from the run-time type information, and function names of call sites.
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>

namespace Qel::Core::Platform {

std::string RawTypeName(const std::type_info& type)
{
    const char* name = type.name();
    // Some type information marks local names with a leading '*'; it is not part of the name.
    if (*name == '*') ++name;
    return name;
}

std::string ReadableTypeName(const std::type_info& type)
{
    std::string raw = RawTypeName(type);
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(raw.c_str(), nullptr, nullptr, &status), std::free);
    if (status != 0 || !demangled) return raw;
    return demangled.get();
}

std::string FunctionNameFromSignature(std::string_view signature)
{
    // A pretty signature reads "<return type> <qualified name>(<parameters>) <qualifiers>",
    // perhaps followed by " [with T = ...]". The name is the token in front of the parameter
    // list that closes the text, with template arguments kept.
    std::string_view text = signature;
    std::string_view::size_type with = text.rfind(" [with ");
    if (with != std::string_view::npos && text.back() == ']') text = text.substr(0, with);

    // Find the closing parenthesis of the parameter list: the last ')' of the text.
    std::string_view::size_type close = text.rfind(')');
    if (close == std::string_view::npos) return std::string(text);
    int depth = 0;
    std::string_view::size_type open = std::string_view::npos;
    for (std::string_view::size_type i = close + 1; i-- > 0;) {
        if (text[i] == ')') ++depth;
        else if (text[i] == '(' && --depth == 0) {
            open = i;
            break;
        }
    }
    if (open == std::string_view::npos) return std::string(text);

    // Walk back over the name to the blank that ends the return type; blanks inside template
    // brackets belong to the name, and so does the one of "operator new" and its kin.
    std::string_view::size_type end = open;
    std::string_view::size_type begin = end;
    int angle = 0;
    while (begin > 0) {
        char c = text[begin - 1];
        if (c == '>') ++angle;
        else if (c == '<') --angle;
        else if (c == ' ' && angle <= 0) {
            std::string_view before = text.substr(0, begin - 1);
            if (!(before.size() >= 8 && before.substr(before.size() - 8) == "operator")) break;
        }
        --begin;
    }
    return std::string(text.substr(begin, end - begin));
}

} // namespace Qel::Core::Platform
