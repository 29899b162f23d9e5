// A font and its fallbacks: characters the first font lacks are drawn with
// the next font fontconfig ranks for the same pattern that has them, so text
// in any script shows when a font for it is installed. Single-threaded (the
// window's thread).
#pragma once

#include <X11/Xft/Xft.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace notifymsg {

class FontChain {
public:
    FontChain(Display* display, int screen, const char* pattern);
    ~FontChain();
    FontChain(const FontChain&) = delete;
    FontChain& operator=(const FontChain&) = delete;

    bool Ok() const { return !m_fonts.empty(); }
    int Ascent() const;
    int Height() const; // one line: ascent plus descent of the first font
    int Measure(const std::u32string& text);
    void Draw(XftDraw* draw, const XftColor& colour, int x, int baseline,
              const std::u32string& text);

private:
    XftFont* FontFor(char32_t c);
    // Calls run(font, characters) for each stretch drawn with one font.
    template <typename Run> void ForEachRun(const std::u32string& text, Run run);

    Display* m_display;
    FcPattern* m_pattern = nullptr;
    FcFontSet* m_candidates = nullptr;
    int m_nextCandidate = 0;
    std::vector<XftFont*> m_fonts; // [0] is the first choice
    std::unordered_map<char32_t, XftFont*> m_fallbackFor;
};

} // namespace notifymsg
