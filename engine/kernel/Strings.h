#pragma once

#include <cstdarg>
#include <type_traits>

#include "kernel/CharSet.h"
#include "kernel/Types.h"

namespace KovexEngine {

template <typename T> class TArray;
class DataStream;
class Stream;

// Owned, always terminated text of 8-bit (`AString`) or 16-bit UTF-16
// (`WString`) characters. Short texts live in a 24-byte inline buffer and
// never touch the heap; longer ones take a block from the C allocator.
// Both widths share this one implementation.
template <typename C>
class KOVEX_API TString
{
    static_assert(std::is_same_v<C, char> || std::is_same_v<C, char16_t>);

public:
    using CharType = C;
    // The character type of the other width, taken by "%S" and conversions.
    using OtherChar = std::conditional_t<std::is_same_v<C, char>, char16_t, char>;

    // Characters that fit inline, the terminator included: 24 or 12.
    static constexpr unsigned kInlineSize = 24 / sizeof(C);
    // Longest text a string will hold; requests beyond it fail rather than
    // attempt an absurd allocation.
    static constexpr unsigned kMaxLength = 0x0FFFFFFFu;
    // Characters the formatting stack buffer holds before cutting.
    static constexpr unsigned kFormatBufferSize = 2048;

    static const TString EmptyString;

    TString() : m_inline{}, m_length(0), m_capacity(0) {}
    TString(const TString& other);
    TString(TString&& other) noexcept;
    TString(const C* text);
    TString(const C* text, unsigned count);
    explicit TString(C ch);
    explicit TString(bool value);
    explicit TString(int value);
    explicit TString(unsigned int value);
    explicit TString(long value);
    explicit TString(unsigned long value);
    explicit TString(long long value);
    explicit TString(unsigned long long value);
    explicit TString(float value);
    explicit TString(double value);
    explicit TString(const Vector2& value);
    explicit TString(const Vector3& value);
    explicit TString(const Vector4& value);
    explicit TString(const Quaternion& value);
    explicit TString(const Matrix2& value);
    explicit TString(const Matrix3& value);
    explicit TString(const Matrix4& value);
    ~TString();

    // A pointer of another type would otherwise silently pick the bool overload.
    template <typename P> requires(!std::is_same_v<std::remove_cv_t<P>, C>)
    TString(P*) = delete;

    TString& operator=(const TString& other);
    TString& operator=(TString&& other) noexcept;
    TString& operator=(const C* text);
    TString& operator=(C ch);
    TString& operator=(bool value);
    TString& operator=(int value);
    TString& operator=(unsigned int value);
    TString& operator=(long value);
    TString& operator=(unsigned long value);
    TString& operator=(long long value);
    TString& operator=(unsigned long long value);
    TString& operator=(float value);
    TString& operator=(double value);
    TString& operator=(const Vector2& value);
    TString& operator=(const Vector3& value);
    TString& operator=(const Vector4& value);
    TString& operator=(const Quaternion& value);
    TString& operator=(const Matrix2& value);
    TString& operator=(const Matrix3& value);
    TString& operator=(const Matrix4& value);
    template <typename P> requires(!std::is_same_v<std::remove_cv_t<P>, C>)
    TString& operator=(P*) = delete;

    TString& operator+=(const TString& other) { Append(other); return *this; }
    TString& operator+=(const C* text) { Append(text); return *this; }
    TString& operator+=(C ch) { Append(ch); return *this; }

    // --- Access ---------------------------------------------------------
    const C* operator()() const { return m_capacity ? m_heap : m_inline; }
    C* operator()() { return m_capacity ? m_heap : m_inline; }
    const C* c_str() const { return (*this)(); }
    unsigned Length() const { return m_length; }
    unsigned HeapLen() const { return m_capacity; }
    bool IsEmpty() const { return m_length == 0; }
    bool IsValid() const { return m_length != 0; }
    C At(unsigned index) const { return index < m_length ? (*this)()[index] : C(0); }
    C& operator[](unsigned index) requires std::is_same_v<C, char> { return (*this)()[index]; }
    C operator[](unsigned index) const requires std::is_same_v<C, char> { return (*this)()[index]; }
    const C* begin() const { return (*this)(); }
    const C* end() const { return (*this)() + m_length; }

    // --- Setting and appending -----------------------------------------
    void Set(const TString& other) { Set(other(), other.m_length); }
    void Set(const C* text);
    // A null text frees the block, clears the first character and sets the
    // length to `count` (callers pass 0).
    void Set(const C* text, unsigned count);
    void Set(C ch) { Set(&ch, 1); }
    void SetBool(bool value);
    void Set(int value);
    void Set(unsigned int value);
    void Set(long value);
    void Set(unsigned long value);
    void Set(long long value);
    void Set(unsigned long long value);
    void Set(float value);
    void Set(double value);
    void Set(const Vector2& value);
    void Set(const Vector3& value);
    void Set(const Vector4& value);
    void Set(const Quaternion& value);
    void Set(const Matrix2& value);
    void Set(const Matrix3& value);
    void Set(const Matrix4& value);

    void Append(const TString& other) { Append(other(), other.m_length); }
    void Append(const C* text);
    void Append(const C* text, unsigned count);
    void Append(C ch) { Append(&ch, 1); }
    void AppendBool(bool value);
    void Append(int value);
    void Append(unsigned int value);
    void Append(long value);
    void Append(unsigned long value);
    void Append(long long value);
    void Append(unsigned long long value);
    void Append(float value);
    void Append(double value);
    void Append(const Vector2& value);
    void Append(const Vector3& value);
    void Append(const Vector4& value);
    void Append(const Quaternion& value);
    void Append(const Matrix2& value);
    void Append(const Matrix3& value);
    void Append(const Matrix4& value);

    // --- Capacity ---------------------------------------------------------
    // Takes a block of exactly count + 1 characters when that exceeds the
    // capacity and the inline buffer. False (and no change) when the block
    // cannot be had or the count is absurd.
    bool Reserve(unsigned count);
    // Reserves, terminates at `count` and sets the length; the characters in
    // between keep whatever they held.
    bool SetLength(unsigned count);
    void Clear();
    void TerminateAtIndex(unsigned index);
    void Swap(TString& other) noexcept;

    // --- Formatting ---------------------------------------------------------
    // printf-style, through the engine's own formatter. In a WString format
    // "%s" takes 16-bit text and "%S" 8-bit text; in an AString format the
    // reverse. "%I64d"/"%I64u" are 64-bit. Output beyond 2047 characters (or
    // `size` - 1) is cut; a size of 0 or above 0x7FFFFFFF prints nothing.
    void Format(const C* format, ...);
    void Format(unsigned size, const C* format, ...);
    void FormatArgList(const C* format, va_list args);
    void FormatArgList(unsigned size, const C* format, va_list args);
    void AppendFormat(const C* format, ...);
    void AppendFormat(unsigned size, const C* format, ...);
    void AppendFormatArgList(unsigned size, const C* format, va_list args);

    // --- Reading values ---------------------------------------------------
    int AsInt() const;
    unsigned int AsUInt() const;
    int AsIntHex() const;
    unsigned int AsUIntHex() const;
    float AsFloat() const;
    double AsDouble() const;
    bool AsBool() const;
    bool IsValidBool() const;

    bool AsValue(bool& out) const;
    bool AsValue(int8& out) const;
    bool AsValue(uint8& out) const;
    bool AsValue(int16& out) const;
    bool AsValue(uint16& out) const;
    bool AsValue(int32& out) const;
    bool AsValue(uint32& out) const;
    bool AsValue(int64& out) const;
    bool AsValue(uint64& out) const;
    bool AsValue(float& out) const;
    bool AsValue(double& out) const;
    bool AsValue(Vector2& out) const;
    bool AsValue(Vector3& out) const;
    bool AsValue(Vector4& out) const;
    bool AsValue(Quaternion& out) const;
    bool AsValue(Matrix2& out) const;
    bool AsValue(Matrix3& out) const;
    bool AsValue(Matrix4& out) const;

    bool IsValidInt() const { return _CheckAll(StringDelimit::Default.signedInt); }
    bool IsValidUInt() const { return _CheckAll(StringDelimit::Default.unsignedInt); }
    bool IsValidIntHex() const { return _CheckAll(StringDelimit::Default.hexInt); }
    bool IsValidFloat() const;
    bool IsValidVector() const { return _CheckAll(StringDelimit::Default.vector); }
    void RemoveFloatPostfix();

    // Evaluates an arithmetic expression (+ - * / % and @ for square root)
    // in single precision.
    bool EvalNumber(float& out) const;

    // --- Searching ------------------------------------------------------
    // A `length` of kNotFound takes the whole text.
    unsigned IndexOf(const C* text, unsigned length = kNotFound, unsigned start = 0) const;
    unsigned IndexOf(C ch, unsigned start = 0) const;
    unsigned IndexOf(const TString& text, unsigned start = 0) const { return IndexOf(text(), text.m_length, start); }
    unsigned LastIndexOf(const C* text, unsigned length = kNotFound, unsigned start = kNotFound) const;
    unsigned LastIndexOf(C ch, unsigned start = kNotFound) const;
    unsigned LastIndexOf(const TString& text, unsigned start = kNotFound) const { return LastIndexOf(text(), text.m_length, start); }
    // Whole-word search: the neighbours of a match must be separators.
    unsigned IndexOfMWW(const C* text, unsigned length, unsigned start, const char* separators) const;
    unsigned _IndexOfMWW(const C* text, unsigned length, unsigned start, const CharSet& separators) const;
    unsigned IndexOfAny(const char* set, unsigned start = 0) const;

    void SubString(TString& out, unsigned start, unsigned length) const;
    void SubString(TString& out, unsigned start) const;
    TString SubString(unsigned start, unsigned length) const;
    TString SubString(unsigned start) const;

    bool StartsWith(const C* text) const;
    bool EndsWith(const C* text) const;

    // --- Replacing --------------------------------------------------------
    // Each returns true, and takes the new text, when at least one
    // replacement was made; at most `maxCount` are made.
    bool Replace(C from, C to);
    bool Replace(const C* set, C to);
    bool Replace(const C* from, const C* to, unsigned maxCount = kNotFound);
    bool Replace(const C* from, const C* const* pieces, unsigned pieceCount, unsigned maxCount = kNotFound);
    bool Replace(C open, C close, const C* with, unsigned maxCount = kNotFound);
    bool ReplaceMWW(const C* from, const C* to, const char* separators, unsigned maxCount = kNotFound);
    bool _ReplaceMWW(const C* from, const C* to, const CharSet& separators, unsigned maxCount = kNotFound);

    // --- Tokens -----------------------------------------------------------
    bool GetToken(TString& out, unsigned& position, unsigned index, const char* separators) const;
    bool _GetToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const;
    bool GetNextToken(TString& out, unsigned& position, unsigned index, const char* separators) const;
    bool _GetNextToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const;
    bool GetLastToken(TString& out, unsigned& position, unsigned index, const char* separators) const;
    bool _GetLastToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const;
    // All non-empty tokens; `out` is emptied first.
    unsigned GetTokens(TArray<TString>& out, const char* delimiters) const;
    static unsigned GetTokens(const C* text, TArray<TString>& out, const char* delimiters);
    // Appends each non-empty run between delimiters; returns how many.
    unsigned Split(const char* delimiters, TArray<TString>& out) const;
    void Concatenate(const TArray<TString>& parts, const C* separator);
    // Splits at commas outside (), [] and {}; `out` is emptied first.
    void GetFuncParams(TArray<TString>& out) const;
    void GetFuncParams(TArray<TString>& out, unsigned start, unsigned length) const;
    bool GetBlock(unsigned& start, unsigned& length, C open, C close, unsigned from = 0) const;
    bool GetBlock(TString& out, C open, C close, unsigned from = 0) const;
    bool GetAttribute(TString& out, const C* name) const;
    bool GetLine(TString& out, unsigned& position, unsigned start) const;
    bool GetLinePos(unsigned& position, unsigned start) const;
    bool ExtractString(TString& out, const C* prefix, const C* suffix) const;
    bool CheckAll(const char* set) const { return _CheckAll(CharSet(set)); }
    bool _CheckAll(const CharSet& set) const;

    // --- Removing ---------------------------------------------------------
    void Remove(unsigned start, unsigned count = kNotFound);
    void RemoveCharSet(const char* set) { _RemoveCharSet(CharSet(set)); }
    void _RemoveCharSet(const CharSet& set);
    void RemoveNRT() { _RemoveCharSet(StringDelimit::Default.nrt); }
    void RemoveEndNRT();
    void RemoveBeginEndNRT() { _RemoveBeginEnd(StringDelimit::Default.nrt); }
    void RemoveBeginEnd(const char* set) { _RemoveBeginEnd(CharSet(set)); }
    void _RemoveBeginEnd(const CharSet& set);
    void RemoveComment();

    // --- Paths ("/" and "\\" alike) ---------------------------------------
    void ConvertSlashes();
    void ConvertBackslashes();
    void ExtractFileName(TString& out) const;
    TString ExtractFileName() const;
    void ExtractDir(TString& out) const;
    TString ExtractDir() const;
    void ExtractToLastSlash();
    void ExtractLastDir(TString& out) const;
    TString ExtractLastDir() const;
    void ExtractLastDirName(TString& out) const;
    void ExtractDirName(TString& out) const;
    void GetFileExt(TString& out) const;
    TString GetFileExt() const;
    void GetFileExtNoDot(TString& out) const;
    void RemoveFileExt();
    bool CheckFileExt(const C* extension) const;
    void MakeDirUpper();
    // Folds parent steps ("a/b/../c" gives "a/c").
    bool FormatDir();

    // --- Case and hashing ---------------------------------------------------
    void ToLower();
    void ToUpper();
    void ToLower(unsigned start, unsigned count);
    void ToUpper(unsigned start, unsigned count);
    void FirstCharToUpper();
    unsigned HashCode() const;

    // --- Comparison -----------------------------------------------------------
    // Character by character by unsigned value.
    int Compare(const C* text) const;
    int Compare(const TString& other) const;
    int CompareNoCase(const C* text) const;
    bool Equals(const C* text, unsigned length) const;
    bool operator==(const TString& other) const { return Equals(other(), other.m_length); }
    bool operator==(const C* text) const { return Compare(text) == 0; }
    bool operator<(const TString& other) const { return Compare(other) < 0; }

    // --- Persistence ----------------------------------------------------------
    // A 32-bit count of characters, then the characters (UTF-16LE for a
    // WString: every unit is written). A negative count fails to load; a
    // count beyond what the source holds fails rather than allocating.
    bool Load(Stream& stream);
    bool Save(Stream& stream) const;
    bool Load(DataStream& stream);
    bool Save(DataStream& stream) const;
    unsigned GetSerializeSize() const { return unsigned(m_length * sizeof(C) + 4); }

    // Length of a terminated text, 0 for null.
    static unsigned TextLength(const C* text);

private:
    // Moves the text onto the heap (or takes a bigger block) with exactly
    // `capacity` characters, keeping the first `keep` characters.
    bool Regrow(unsigned capacity, unsigned keep);
    template <typename V> void SetFormatted(const V& value, bool append);
    // Rebuilds the text with each match that `find` reports replaced by what
    // `emit` appends; swaps the result in when anything was replaced.
    template <typename Find, typename Emit> bool ReplaceMatches(unsigned maxCount, Find&& find, Emit&& emit);

    union
    {
        C* m_heap;
        C m_inline[kInlineSize];
    };
    uint32 m_length;
    uint32 m_capacity;
};

using AString = TString<char>;
using WString = TString<char16_t>;

extern template class TString<char>;
extern template class TString<char16_t>;

template <typename C>
inline TString<C> operator+(const TString<C>& a, const TString<C>& b)
{
    TString<C> result(a);
    result.Append(b);
    return result;
}

template <typename C>
inline TString<C> operator+(const TString<C>& a, const C* b)
{
    TString<C> result(a);
    result.Append(b);
    return result;
}

template <typename C>
inline TString<C> operator+(const C* a, const TString<C>& b)
{
    TString<C> result(a);
    result.Append(b);
    return result;
}

template <typename C>
inline bool operator!=(const TString<C>& a, const TString<C>& b) { return !(a == b); }

// The formatter behind every Format: writes at most size - 1 characters and a
// terminator into `out` (nothing for a size of 0) and returns the length the
// whole output would have had, so a caller can size a second pass.
KOVEX_API unsigned FormatText(char* out, unsigned size, const char* format, va_list args);
KOVEX_API unsigned FormatText(char16_t* out, unsigned size, const char16_t* format, va_list args);

// The words that AsBool understands, in false/true pairs.
class KOVEX_API BoolWords
{
public:
    // Adds a false/true pair (8-bit text, compared without case).
    static bool AddPair(const char* falseWord, const char* trueWord);
    // Index of the word in the table, or kNotFound.
    static unsigned Find(const char* text, unsigned length);
    static unsigned Find(const char16_t* text, unsigned length);
};

} // namespace KovexEngine
