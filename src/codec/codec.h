// codec.h - header encodings and character sets.
//
// Encoded words of message headers ("=?charset?Q|B?text?=") in both
// directions, the base64 and Q decoders behind them, character-set
// conversion with iconv, the ISO-8859-1 to ASCII fold, and the clean-up of
// folded and quoted header texts.  A null or empty charset name means
// "ISO-8859-1" everywhere.  Every output buffer is NUL-terminated and never
// written past its size (a size of 0 leaves it untouched).
//
// Base64 and Q (base64.cpp); they report nothing:
//   CharToBase64(c)                 0..63, or -1 outside the alphabet.
//   DecodeQuadruplet(out, in, &pos) one group of four characters (blanks and
//       line feeds skipped), returns the bytes produced (3, 2, 1 or 0); a
//       group cut by the end of the text is decoded as if padded.  The
//       caller leaves 4 bytes of room at out.
//   DecodeBase64(in, out, size)     groups while output + 4 < size, up to the
//       end, a blank or line feed between groups, or the first padded group:
//       at most size - 2 bytes.
//   DecodeCodageQ(in, out, size)    "=XX" (strtol base 16, low 8 bits) and
//       "_" to blank; at most size - 1 bytes.
//
// Encoded words (mot.cpp):
//   DecodageQPNecessaire(v)         1 when v holds "=?".
//   DecodeQP(v, charset, out, size) decodes every encoded word of v into the
//       target charset; plain text between words is copied as it is; a value
//       without "=?" is copied and folded to ASCII.  Messages, level 4, the
//       value then copied unchanged (bounded by the room left):
//       2414 no "?" after "=?", 2421 bad or missing letter, 2428 no "?=",
//       2457 iconv_open failed, 2467 invalid sequence; level 2: 2443 word
//       buffer allocation.  Charset names are cut to 31 characters.
//   CodageQPNecessaire(v)           the first byte >= 0x80 (negative), or 0.
//   yfautcouper(pos, counter)       1 when the word must be closed before pos
//       (counter + unit > 75 and the byte at pos is ASCII).
//   EncodeQP(v, charset, out, size) Q encoded words folded by "?=\n\t", only
//       letters unencoded; ASCII values copied unchanged.  No messages.
//
// Character sets and clean-up (charset.cpp):
//   conv_jc(src, cs_src, out, cs_dst, size)  iconv conversion; on failure the
//       source is copied unchanged.  Level 4: 2194 iconv_open, 2202 iconv.
//   conv_jc2(...)                   same, null on failure.  Level 4: 2231, 2238.
//       Both keep the text converted so far when the output is full, cut
//       after the last whole character.
//   conv_Iso8859_Ascii7(text)       in place: accented letters of the fixed
//       table to a lower-case ASCII letter, every other byte >= 0x80 to "?".
//   Deplie(src, out, size)          unfolds: a line feed and what follows up
//       to the next blank or tab are dropped.
//   DeQuotte(src, out, size)        as Deplie, and drops double quotes and
//       backslashes with the byte each one escapes.
//
// Every iconv descriptor and word buffer is released on every path.
#pragma once

#include <cstddef>

// Size of the field holding an encoded word's charset name (31 + NUL).
constexpr std::size_t TAILLE_CHARSET = 32;
// A line of encoded words is closed before it would pass this many columns.
constexpr int COLONNES_MOT_ENCODE = 75;

int CharToBase64(char c_Car);
int DecodeQuadruplet(char *pc_Sortie, const char *pc_Entree, int *pi_Position);
void DecodeBase64(const char *pc_Entree, char *pc_Sortie, std::size_t t_Taille);
char *DecodeCodageQ(const char *pc_Entree, char *pc_Sortie, std::size_t t_Taille);

int DecodageQPNecessaire(const char *pc_Valeur);
char *DecodeQP(const char *pc_Valeur, const char *pc_Charset, char *pc_Sortie,
               std::size_t t_Taille);
int CodageQPNecessaire(const char *pc_Valeur);
int yfautcouper(const char *pc_Position, int i_Compteur);
char *EncodeQP(const char *pc_Valeur, const char *pc_Charset, char *pc_Sortie, int i_Taille);

char *conv_jc(const char *pc_Source, const char *pc_CharsetSource, char *pc_Sortie,
              const char *pc_CharsetCible, std::size_t t_Taille);
char *conv_jc2(const char *pc_Source, const char *pc_CharsetSource, char *pc_Sortie,
               const char *pc_CharsetCible, std::size_t t_Taille);
char *conv_Iso8859_Ascii7(char *pc_Texte);
char *Deplie(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille);
char *DeQuotte(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille);
