#include "document/EventFormat.h"

#include <algorithm>
#include <cwchar>
#include <string>
#include <string_view>

namespace VxaCore {

namespace {

// One conversion, in the parts that printf(3) names.
struct Conversion {
    std::size_t length;    // from the "%" on
    std::size_t consumed;  // arguments it takes in their order ("%*d" takes two)
    std::size_t highest;   // highest number of a numbered argument, else 0
    bool complete;         // ends in a conversion letter
};

// Reads digits; true when a "$" follows them, which is then skipped as well.
bool SkipNumber(std::wstring_view text, std::size_t& at, std::size_t& number)
{
    for (number = 0; at < text.size() && text[at] >= L'0' && text[at] <= L'9'; ++at)
        number = number < 100000 ? number * 10 + static_cast<std::size_t>(text[at] - L'0') : number;
    if (number == 0 || at >= text.size() || text[at] != L'$') return false;
    ++at;
    return true;
}

void SkipAnyOf(std::wstring_view text, std::size_t& at, std::wstring_view set)
{
    at = std::min(text.find_first_not_of(set, at), text.size());
}

// A width or precision: digits, or "*" for an argument.
void ReadSize(std::wstring_view text, std::size_t& at, Conversion& conversion)
{
    std::size_t number = 0;
    if (at < text.size() && text[at] == L'*') {
        ++at;
        if (SkipNumber(text, at, number))
            conversion.highest = std::max(conversion.highest, number);
        else
            ++conversion.consumed;
    } else {
        SkipNumber(text, at, number);
    }
}

// `text` starts at a "%" that is not doubled.
Conversion Read(std::wstring_view text)
{
    Conversion conversion{0, 0, 0, false};
    std::size_t at = 1;
    std::size_t number = 0;
    const bool numbered = SkipNumber(text, at, number);
    if (numbered)
        conversion.highest = number;
    else
        at = 1;
    SkipAnyOf(text, at, L"#0- +'I");
    ReadSize(text, at, conversion);
    if (at < text.size() && text[at] == L'.') ReadSize(text, ++at, conversion);
    SkipAnyOf(text, at, L"hlqLjzt");
    conversion.complete = at < text.size() && std::wcschr(L"diouxXeEfFgGaAcsCSpm", text[at]);
    conversion.consumed += conversion.complete && !numbered && text[at] != L'm';
    conversion.length = conversion.complete ? at + 1 : 1;
    return conversion;
}

bool IsDoubled(std::wstring_view text)
{
    return text.size() > 1 && text[1] == L'%';
}

}  // namespace

wxString WithoutArguments(const wxString& format)
{
    wxString text = format;
    text.Replace("%%", "%");
    return text;
}

wxString KeepConversions(const wxString& format, std::size_t arguments)
{
    std::wstring_view rest(format.wc_str(), format.length());
    std::wstring kept;
    std::size_t used = 0;
    while (!rest.empty()) {
        std::size_t length = std::min(rest.find(L'%'), rest.size());
        if (length == 0 && IsDoubled(rest)) {
            length = 2;
        } else if (length == 0) {
            const Conversion conversion = Read(rest);
            const bool fits = conversion.complete && conversion.highest <= arguments &&
                              used + conversion.consumed <= arguments;
            // Once one lacks its argument all later ones do: none may take its place.
            if (conversion.complete) used = fits ? used + conversion.consumed : arguments;
            length = conversion.length;
            kept += fits ? L"" : L"%";
        }
        kept += rest.substr(0, length);
        rest.remove_prefix(length);
    }
    return wxString(kept);
}

}  // namespace VxaCore
