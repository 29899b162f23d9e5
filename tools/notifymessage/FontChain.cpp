#include "FontChain.h"

namespace notifymsg {

FontChain::FontChain(Display* display, int screen, const char* pattern) : m_display(display) {
    m_pattern = FcNameParse(reinterpret_cast<const FcChar8*>(pattern));
    if (m_pattern == nullptr) {
        return;
    }
    FcConfigSubstitute(nullptr, m_pattern, FcMatchPattern);
    XftDefaultSubstitute(display, screen, m_pattern);
    FcResult result = FcResultNoMatch;
    m_candidates = FcFontSort(nullptr, m_pattern, FcTrue, nullptr, &result);
    FcPattern* best = FcFontMatch(nullptr, m_pattern, &result);
    XftFont* first = best != nullptr ? XftFontOpenPattern(display, best) : nullptr;
    if (first != nullptr) {
        m_fonts.push_back(first); // it owns best now
    } else if (best != nullptr) {
        FcPatternDestroy(best);
    }
}

FontChain::~FontChain() {
    for (XftFont* font : m_fonts) {
        XftFontClose(m_display, font);
    }
    if (m_candidates != nullptr) {
        FcFontSetDestroy(m_candidates);
    }
    if (m_pattern != nullptr) {
        FcPatternDestroy(m_pattern);
    }
}

int FontChain::Ascent() const {
    return m_fonts.front()->ascent;
}

int FontChain::Height() const {
    return m_fonts.front()->ascent + m_fonts.front()->descent;
}

XftFont* FontChain::FontFor(char32_t c) {
    XftFont* first = m_fonts.front();
    if (XftCharExists(m_display, first, c)) {
        return first;
    }
    auto known = m_fallbackFor.find(c);
    if (known != m_fallbackFor.end()) {
        return known->second;
    }
    XftFont* found = nullptr;
    for (size_t i = 1; i < m_fonts.size() && found == nullptr; ++i) {
        if (XftCharExists(m_display, m_fonts[i], c)) {
            found = m_fonts[i];
        }
    }
    while (found == nullptr && m_candidates != nullptr && m_nextCandidate < m_candidates->nfont) {
        FcPattern* candidate = m_candidates->fonts[m_nextCandidate++];
        FcCharSet* charset = nullptr;
        if (FcPatternGetCharSet(candidate, FC_CHARSET, 0, &charset) != FcResultMatch ||
            !FcCharSetHasChar(charset, c)) {
            continue;
        }
        FcPattern* prepared = FcFontRenderPrepare(nullptr, m_pattern, candidate);
        XftFont* font = prepared != nullptr ? XftFontOpenPattern(m_display, prepared) : nullptr;
        if (font == nullptr) {
            if (prepared != nullptr) {
                FcPatternDestroy(prepared);
            }
            continue;
        }
        m_fonts.push_back(font);
        found = font;
    }
    // No installed font has it: the first font draws its "missing" glyph.
    m_fallbackFor[c] = found != nullptr ? found : first;
    return m_fallbackFor[c];
}

template <typename Run> void FontChain::ForEachRun(const std::u32string& text, Run run) {
    std::vector<FcChar32> chars;
    XftFont* current = nullptr;
    for (char32_t c : text) {
        XftFont* font = FontFor(c);
        if (font != current && !chars.empty()) {
            run(current, chars);
            chars.clear();
        }
        current = font;
        chars.push_back(FcChar32(c));
    }
    if (!chars.empty()) {
        run(current, chars);
    }
}

int FontChain::Measure(const std::u32string& text) {
    int width = 0;
    ForEachRun(text, [&](XftFont* font, const std::vector<FcChar32>& chars) {
        XGlyphInfo extents;
        XftTextExtents32(m_display, font, chars.data(), int(chars.size()), &extents);
        width += extents.xOff;
    });
    return width;
}

void FontChain::Draw(XftDraw* draw, const XftColor& colour, int x, int baseline,
                     const std::u32string& text) {
    ForEachRun(text, [&](XftFont* font, const std::vector<FcChar32>& chars) {
        XftDrawString32(draw, &colour, font, x, baseline, chars.data(), int(chars.size()));
        XGlyphInfo extents;
        XftTextExtents32(m_display, font, chars.data(), int(chars.size()), &extents);
        x += extents.xOff;
    });
}

} // namespace notifymsg
