// Texts that become words of a shell command line.
#pragma once

namespace kesta {

// Whether a text is one word to every shell, with nothing that a shell would act on. A null text is
// none, and may stand for a word that is left out.
inline bool is_shell_word(const char *text)
{
    static constexpr char others[] = "._:+-=/@";
    for (const char *at = text; at && *at; ++at) {
        const bool plain = (*at >= '0' && *at <= '9') || (*at >= 'A' && *at <= 'Z') ||
                           (*at >= 'a' && *at <= 'z');
        bool allowed = plain;
        for (const char *other = others; !allowed && *other; ++other) {
            allowed = *at == *other;
        }
        if (!allowed) {
            return false;
        }
    }
    return true;
}

}  // namespace kesta
