#include "args.h"

#include <cstring>

namespace tervane::tool {
namespace {

// The length of the "key" of KEY=VALUE, or 0 when TOKEN is not of that form.
size_t OptionKeyLength(const Token& token) {
    size_t eq = token.text.find('=');
    if (eq == std::string::npos || eq == 0 || eq >= token.unquotedPrefix) return 0;
    for (size_t i = 0; i < eq; ++i)
        if (token.text[i] < 'a' || token.text[i] > 'z') return 0;
    return eq;
}

}  // namespace

Args::Args(std::string command, std::vector<Token> tokens, std::initializer_list<const char*> options,
           std::initializer_list<const char*> switches)
    : command_(std::move(command)) {
    for (auto& token : tokens) {
        if (size_t keyLength = OptionKeyLength(token)) {
            std::string key = token.text.substr(0, keyLength);
            bool known = false;
            for (const char* o : options) known = known || key == o;
            if (!known) throw ScriptError(command_ + ": unknown option " + key + "=");
            for (const auto& [k, v] : options_)
                if (k == key) throw ScriptError(command_ + ": option " + key + "= given twice");
            options_.emplace_back(key, token.text.substr(keyLength + 1));
            continue;
        }
        if (token.Unquoted()) {
            bool isSwitch = false;
            for (const char* s : switches) isSwitch = isSwitch || token.text == s;
            if (isSwitch) {
                if (!switches_.insert(token.text).second)
                    throw ScriptError(command_ + ": " + QuoteText(token.text) + " given twice");
                continue;
            }
        }
        positional_.push_back(std::move(token.text));
    }
}

std::string Args::Next(const char* what) {
    if (next_ >= positional_.size()) throw ScriptError(command_ + ": missing " + what);
    return positional_[next_++];
}

std::optional<std::string> Args::NextIf() {
    if (next_ >= positional_.size()) return std::nullopt;
    return positional_[next_++];
}

std::vector<std::string> Args::Rest() {
    std::vector<std::string> rest(positional_.begin() + static_cast<long>(next_), positional_.end());
    next_ = positional_.size();
    return rest;
}

std::optional<std::string> Args::Option(const char* key) const {
    for (const auto& [k, v] : options_)
        if (k == key) return v;
    return std::nullopt;
}

void Args::Done() const {
    if (next_ < positional_.size())
        throw ScriptError(command_ + ": unexpected argument " + QuoteText(positional_[next_]));
}

}  // namespace tervane::tool
