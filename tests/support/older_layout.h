// Test helper: a definitions database of the OLDER layout, the one the
// `...KVR` readers read.
//
//   kavrel::test::TempDir dir;
//   std::string path = dir.file("old.sqlite");
//   kavrel::test::createOlderLayoutDb(path);   // throws on failure
//   auto conn = kavrel::db::openConnection(path);
//   conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
//
// The file holds the tables below and nothing else (no rows but the
// [system] version row "3"); there are no relations between tables, as in
// databases of that era. Autonumber columns are INTEGER PRIMARY KEY
// AUTOINCREMENT; booleans are stored as -1 / 0.
//
//   [system]         ([parameter], [value])           one row: 'version' = '3'
//   Fonctions        (Address PK, [Function Name])    no XId / RId
//   Protocoles       ([Protocol Name] PK, [Init mode], Multipoint)
//   Cibles           ([Target Id] auto, Address, [Target Name])
//                    no Langue / [Référence]
//   [Paramètres UCE] ([Ecu Id], Comment, [Init Mode], Multipoint, Key1, Key2,
//                     [Baud Rate], InterByteDelay, KW2Delay, FirstRequestDelay,
//                     ReplyToRequestDelay, TesterPresentDelay, KW2Timeout,
//                     RequestToReplyTimeout, ErrorDelay, [Little Endian])
//                    no failure type, Reprogrammable, [Date Officialisation]
//   Requêtes         ([Request Id] auto, Address, [Target Id], [Request Name],
//                     [Request Bytes], [Length Datas], [Manual Send], LgVariable)
//   Données          ([Data Id] auto, Address, [Target Id], [Request Id],
//                     [Data Name], Numérique, Liste, Param, Start, Length,
//                     Masque, NumBitFort, NumBitFaible, Unité, Signé, CoeffA,
//                     CoeffB, CoeffC, Format, Ascii, [Little Endian], StartBit,
//                     NumberBits, Mnemo, Description)
//                    one row per placement of a data item in a request: the
//                    same [Data Name] may appear in several rows
//   [Fiches Diag]    ([Data Id], Fiche)
//   Listes           ([Data Id], Valeur, Numérique, Liste, Libellé, Info)
//   Catégories       ([Category Id] auto, [Target Id], [Category Name])
//   Ecrans           ([Screen Id] auto, [Target Id], [Category Id],
//                     [Screen Name], [Init Id], WindowState, Height, Width,
//                     ScreenColor)
//   Titres           ([Label Id] auto, [Target Id], [Screen Id], [Text], [Left],
//                     [Top], Height, Width, FontName, FontSize, FontBold,
//                     FontItalic, FontColor, Color, Alignment)
//   Boutons          ([Button Id] auto, [Target Id], [Screen Id], Caption,
//                     [Left], [Top], Height, Width, FontName, FontSize,
//                     FontBold, FontItalic, Message)
//   Scenarios        ([Target Id], [Button Id], [Index], Address, [Ecu Id],
//                     [Request Name], LgVariable, Delay)
//   Affichages       ([Display Id] auto, [Target Id], [Screen Id], [Left],
//                     [Top], Height, Width, CaptionWidth, FontName, FontSize,
//                     FontBold, FontItalic, FontColor, Color, [Data Name],
//                     Param, Address, [Ecu Id])
//                    no [Type Affich]: a display carries its data link itself
//   Seuils           ([Display Id], Seuil, Couleur, SonFlag, Son)
//
// Tables that layout did not have are absent: Identification, Organes and
// their link tables, [Type Organe], [Type Panne], [Appartenance cible],
// [Emplacement Donnée], Donnée_Ref, Données_Aff, Extra_Aff.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kavrel::test {

// Creates the database file at `path` (which must not exist yet). Throws
// (kavrel::Error or std::runtime_error) on failure.
void createOlderLayoutDb(const std::string& path);

// The CREATE TABLE / INSERT statements used, one statement per entry.
const std::vector<std::string_view>& olderLayoutStatements();

}  // namespace kavrel::test
