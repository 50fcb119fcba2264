// Text corpora for the benchmarks, generated in code from fixed seeds, so
// every run and every machine measures the same bytes.
//
//   const std::string& text = qor::bench::corpus(qor::bench::Corpus::Latin);
//   const std::vector<std::string>& lines = qor::bench::shortLines();
//
// Corpora (about 16 MiB each; 1 MiB when QOR_BENCH_SMOKE is set):
//   Ascii  English-like prose: words, spaces and punctuation.
//   Latin  street and place names of Western and Central Europe, where
//          about one character in ten is a two-byte letter (umlauts,
//          accents, sharp s).
//   Cjk    Chinese and Japanese text: three-byte characters with a few ASCII
//          digits, spaces and punctuation between runs.
//   Emoji  short messages in which about every third character is a
//          four-byte emoji, between ASCII and two-byte text.
// All corpora are strict UTF-8 without control characters (no newlines: the
// texts are one long line), so the repair benchmarks measure the case where
// nothing needs repairing. shortLines() gives 1,024 lines of 90 to 110
// bytes, like the street and place names of a map.
//
// Threads: the corpora are built on first use under a function-local static
// and are read-only afterwards; any thread may read them.
#ifndef QOR_BENCH_CORPORA_H
#define QOR_BENCH_CORPORA_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace qor::bench {

enum class Corpus
{
    Ascii,
    Latin,
    Cjk,
    Emoji,
};

inline const char* corpusName(Corpus corpus)
{
    switch (corpus)
    {
    case Corpus::Ascii: return "ascii";
    case Corpus::Latin: return "latin";
    case Corpus::Cjk: return "cjk";
    case Corpus::Emoji: return "emoji";
    }
    return "?";
}

namespace detail {

// SplitMix64: the same numbers with every standard library.
class Random
{
public:
    explicit Random(std::uint64_t seed) : m_State(seed) {}

    std::uint64_t next()
    {
        std::uint64_t z = (m_State += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    // A number in [0, bound).
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() % bound); }

    template <typename T, std::size_t N>
    const T& pick(const T (&items)[N])
    {
        return items[below(N)];
    }

private:
    std::uint64_t m_State;
};

inline void appendCodePoint(std::string& out, std::uint32_t cp)
{
    if (cp < 0x80)
    {
        out.push_back(static_cast<char>(cp));
    }
    else if (cp < 0x800)
    {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
    else if (cp < 0x10000)
    {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
    else
    {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

inline std::size_t corpusBytes()
{
    return std::getenv("QOR_BENCH_SMOKE") != nullptr ? (1u << 20) : (16u << 20);
}

// Cuts `text` back to at most `size` bytes, at a character boundary.
inline void truncateAtCharacter(std::string& text, std::size_t size)
{
    if (text.size() <= size)
    {
        return;
    }
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80)
    {
        --size;
    }
    text.resize(size);
}

inline std::string makeAscii(std::size_t size)
{
    static const char* const words[] = {
        "the", "of", "and", "to", "in", "is", "was", "for", "on", "with", "as", "by", "at", "from", "road", "river",
        "north", "bridge", "station", "market", "square", "church", "castle", "harbour", "valley", "mountain",
        "village", "junction", "motorway", "exit", "turn", "left", "right", "after", "before", "metres", "continue",
        "roundabout", "destination", "arrive", "traffic", "route", "avenue", "lane", "park", "museum", "hotel",
    };
    static const char* const separators[] = {" ", " ", " ", " ", " ", " ", ", ", ". ", "; ", " - "};
    Random random(0xA5C11);
    std::string text;
    text.reserve(size + 64);
    while (text.size() < size)
    {
        text += random.pick(words);
        text += random.pick(separators);
    }
    truncateAtCharacter(text, size);
    return text;
}

// Street and place names; the accented ones bring about one two-byte
// character in ten.
inline const char* const* latinWords(std::size_t& count)
{
    static const char* const words[] = {
        "Stra\xC3\x9F" "e", "M\xC3\xBC" "nchen", "K\xC3\xB6" "ln", "D\xC3\xBC" "sseldorf", "Hauptstra\xC3\x9F" "e",
        "Bahnhofstra\xC3\x9F" "e", "Z\xC3\xBC" "rich", "Gen\xC3\xA8" "ve", "Malm\xC3\xB6", "G\xC3\xB6" "teborg",
        "K\xC3\xB8" "benhavn", "Cura\xC3\xA7" "ao", "S\xC3\xA3" "o", "Jos\xC3\xA9", "Avenida", "Calle", "Rue",
        "Place", "de", "la", "du", "des", "Saint", "Sainte", "Marktplatz", "Kirchweg", "Lindenallee", "Am",
        "Bahnhof", "Berliner", "Platz", "Ring", "Gasse", "Weg", "Allee", "Chemin", "Boulevard", "Via", "Piazza",
        "Corso", "Garibaldi", "Roma", "Verdi", "Goethe", "Schiller", "Mozart", "Victor", "Hugo", "Jean", "Jaur\xC3\xA8" "s",
        "Caf\xC3\xA9", "Na\xC3\xAF" "ve", "\xC3\x89" "cole", "H\xC3\xB4" "tel", "For\xC3\xAA" "t", "Espa\xC3\xB1" "a",
        "Ni\xC3\xB1" "o", "Cra\xC3\xAF" "ova", "\xC5\x81\xC3\xB3" "d\xC5\xBA", "Krak\xC3\xB3" "w", "Pra\xC5\xBE\xC3\xA1" "k",
        "Br\xC3\xBC" "cke", "Gr\xC3\xBC" "ner", "Hof", "Feld", "Berg", "Tal", "Dorf", "Neue", "Alte", "Kleine",
        "Gro\xC3\x9F" "e",
    };
    count = sizeof words / sizeof words[0];
    return words;
}

inline std::string makeLatinText(Random& random, std::size_t size)
{
    static const char* const separators[] = {" ", " ", " ", " ", " ", ", ", "-", " ", " 12 ", " 7a, "};
    std::size_t count;
    const char* const* words = latinWords(count);
    std::string text;
    text.reserve(size + 64);
    while (text.size() < size)
    {
        text += words[random.below(count)];
        text += random.pick(separators);
    }
    return text;
}

inline std::string makeLatin(std::size_t size)
{
    Random random(0x1A71);
    std::string text = makeLatinText(random, size);
    truncateAtCharacter(text, size);
    return text;
}

inline std::string makeCjk(std::size_t size)
{
    Random random(0xC3C);
    std::string text;
    text.reserve(size + 64);
    while (text.size() < size)
    {
        // A run of Han characters, now and then kana, then ASCII between runs.
        const std::size_t run = 4 + random.below(20);
        for (std::size_t i = 0; i < run; ++i)
        {
            const std::uint32_t cp = random.below(8) == 0 ? 0x3041 + static_cast<std::uint32_t>(random.below(86))
                                                           : 0x4E00 + static_cast<std::uint32_t>(random.below(0x5200));
            appendCodePoint(text, cp);
        }
        switch (random.below(4))
        {
        case 0: appendCodePoint(text, 0x3002); break; // ideographic full stop
        case 1: text += " "; break;
        case 2: text += std::to_string(random.below(1000)); break;
        default: appendCodePoint(text, 0xFF0C); break; // full-width comma
        }
    }
    truncateAtCharacter(text, size);
    return text;
}

inline std::string makeEmoji(std::size_t size)
{
    static const char* const words[] = {
        "ok", "see", "you", "at", "the", "station", "love", "it", "haha", "bis", "gleich", "sch\xC3\xB6n", "merci",
        "d\xC3\xA9j\xC3\xA0", "vu", "yes", "no", "now", "later", "home",
    };
    Random random(0xE3071);
    std::string text;
    text.reserve(size + 64);
    while (text.size() < size)
    {
        text += random.pick(words);
        text += ' ';
        // One to three emoji after most words.
        for (std::size_t n = random.below(4); n > 0; --n)
        {
            appendCodePoint(text, 0x1F300 + static_cast<std::uint32_t>(random.below(0x300)));
        }
        if (random.below(3) == 0)
        {
            appendCodePoint(text, 0x1F900 + static_cast<std::uint32_t>(random.below(0x100)));
            text += ' ';
        }
    }
    truncateAtCharacter(text, size);
    return text;
}

} // namespace detail

// The corpus, built once.
inline const std::string& corpus(Corpus which)
{
    static const std::string s_Ascii = detail::makeAscii(detail::corpusBytes());
    static const std::string s_Latin = detail::makeLatin(detail::corpusBytes());
    static const std::string s_Cjk = detail::makeCjk(detail::corpusBytes());
    static const std::string s_Emoji = detail::makeEmoji(detail::corpusBytes());
    switch (which)
    {
    case Corpus::Ascii: return s_Ascii;
    case Corpus::Latin: return s_Latin;
    case Corpus::Cjk: return s_Cjk;
    case Corpus::Emoji: return s_Emoji;
    }
    return s_Ascii;
}

// 1,024 lines of 90 to 110 bytes of street and place names.
inline const std::vector<std::string>& shortLines()
{
    static const std::vector<std::string> s_Lines = [] {
        detail::Random random(0x5EED);
        std::vector<std::string> lines;
        for (int i = 0; i < 1024; ++i)
        {
            std::string line = detail::makeLatinText(random, 90 + random.below(21));
            detail::truncateAtCharacter(line, 110);
            lines.push_back(line);
        }
        return lines;
    }();
    return s_Lines;
}

} // namespace qor::bench

#endif
