// The one rule by which names (targets, requests, data items, organs,
// catalogue entries, categories, screens, ...) are compared, made unique,
// looked up and sorted, in the library and in every database engine.
//
//   key(name)     = NFC(full Unicode lower-case mapping of name, root locale)
//   equal(a, b)   <=> key(a) == key(b), byte for byte
//   compare(a, b) = French collation (default strength) of key(a) and key(b);
//                   where the collation sees no difference, the key bytes
//                   decide.
//
// So "É" equals "é" and "Lecture" equals "LECTURE", but "e" differs from
// "é" (accents count) and "Moteur" from "Moteur\t" (nothing is trimmed).
// Order is case-insensitive with accented letters next to their base letter:
// "Eclairage" < "Éclairage" < "Vitesse". compare() is a total order
// consistent with equal(): compare(a, b) == 0 exactly when equal(a, b).
//
// Names are UTF-8. A text that is not valid UTF-8 keeps its bytes in its key
// with only the ASCII letters lowered, so such names still compare, never
// throw and never merge with a valid name that spells differently.
//
// Engines: SQLite registers compare() as the collation "KAVREL_NAME" on every
// connection the library opens. A server engine expresses the same rule as
// normalize(lower(x COLLATE "und-x-icu"), NFC) for the key (a unique index on
// that expression) and ORDER BY that expression COLLATE "fr-x-icu".
//
// All functions are thread-safe and never throw (apart from std::bad_alloc).
#pragma once

#include <string>
#include <string_view>

namespace kavrel::names {

// The comparison key of a name. ASCII-only names need no Unicode tables:
// their key is the name with A-Z lowered.
std::string key(std::string_view name);

// Whether two names are the same name (their keys are equal).
bool equal(std::string_view a, std::string_view b);

// <0, 0 or >0 as a sorts before, equal to or after b.
int compare(std::string_view a, std::string_view b);

// compare() for texts that are already keys (saves recomputing them, e.g.
// for an index that stores keys). compareKeys(key(a), key(b)) == compare(a, b).
int compareKeys(std::string_view keyA, std::string_view keyB);

// The name of the SQLite collation that implements compare().
inline constexpr const char* kSqliteCollation = "KAVREL_NAME";

}  // namespace kavrel::names
