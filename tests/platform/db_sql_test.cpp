// The legacy SQL texts: dialect adaptation, one statement per text, and a
// sample of the statements the item classes issue, run on a fresh schema.
#include <gtest/gtest.h>

#include <map>

#include "platform/db_sample_target.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

class SqlTextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = db.connection();
    t = addSampleTarget(*conn, 122, "ABS");
    addSampleTarget(*conn, 64, "Injection");
    values = {{"{tid}", std::to_string(t.targetId)},          {"{addr}", std::to_string(t.address)},
              {"{rid}", std::to_string(t.readRequestId)},     {"{did}", std::to_string(t.regimeId)},
              {"{oid}", std::to_string(t.organId)},           {"{cid}", std::to_string(t.categoryId)},
              {"{sid}", std::to_string(t.screenId)},          {"{bid}", std::to_string(t.buttonId)},
              {"{lid}", std::to_string(t.labelId)},           {"{ddisp}", std::to_string(t.dataDisplayId)},
              {"{rdisp}", std::to_string(t.requestDisplayId)}};
  }
  std::string sub(std::string s) const {
    for (const auto& [k, v] : values) {
      for (size_t p; (p = s.find(k)) != std::string::npos;) s.replace(p, k.size(), v);
    }
    return s;
  }
  // Runs a statement to its end; returns the rows a query gave.
  int64_t run(const std::string& sql) {
    auto rs = conn->execute(sub(sql));
    int64_t n = 0;
    for (; !rs->eof(); rs->moveNext()) ++n;
    return n;
  }
  // Opens for update and reads; returns the rows.
  int64_t runUpdatable(const std::string& sql) {
    auto rs = conn->openUpdatable(sub(sql));
    int64_t n = 0;
    for (; !rs->eof(); rs->moveNext()) ++n;
    return n;
  }

  TempDb db;
  std::shared_ptr<db::Connection> conn;
  SampleTarget t;
  std::map<std::string, std::string> values;
};

int64_t count(db::Connection& c, const std::string& table) { return countRows(c, table); }

TEST_F(SqlTextTest, DeleteStarIsAdaptedInAnyCaseAndSpacing) {
  EXPECT_EQ(run("DELETE * FROM Seuils WHERE [Display Id]=-5"), 0);
  EXPECT_EQ(run("  delete *  from [Fiches Diag] WHERE [Data Id] =" + std::to_string(t.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 1);
  EXPECT_EQ(run("DeLeTe\t*\nFrom\tListes WHERE [Data Id]=" + std::to_string(t.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 2);
  // Only the leading "DELETE *" is touched: a star elsewhere stays.
  EXPECT_EQ(run("DELETE FROM Seuils WHERE [Display Id] IN (SELECT [Display Id] FROM Affichages WHERE 2*2=5)"), 0);
}

TEST_F(SqlTextTest, ATextHoldsOneStatementOnly) {
  const int64_t before = count(*conn, "Seuils");
  EXPECT_THROW(conn->execute("DELETE FROM Seuils; DROP TABLE Seuils"), DbError);
  EXPECT_THROW(conn->execute("SELECT 1; SELECT 2"), DbError);
  EXPECT_THROW(conn->openClient("SELECT 1;DELETE FROM Seuils"), DbError);
  EXPECT_THROW(conn->openUpdatable("SELECT Seuil FROM Seuils; DELETE FROM Seuils"), DbError);
  EXPECT_EQ(count(*conn, "Seuils"), before);
  ASSERT_FALSE(conn->errors().empty());
  EXPECT_NE(conn->errors().back().description().find("more than one statement"), std::string::npos);
  // A closing semicolon or comment is no second statement.
  EXPECT_EQ(run("SELECT 1;  -- done"), 1);

  // A name that would close the quote and add a statement stays a name once
  // quoted; spliced unquoted it fails before reaching the database.
  const std::string evil = "x'; DELETE FROM Seuils; --";
  EXPECT_EQ(run("SELECT Address,[Target Id] FROM Cibles WHERE [Target Name]=" + db::sql::quote(evil)), 0);
  EXPECT_THROW(conn->execute("SELECT * FROM Identification WHERE [Logiciel]='" + db::sql::spliceUnquoted(evil) + "'"),
               DbError);
  EXPECT_EQ(count(*conn, "Seuils"), before);
}

TEST_F(SqlTextTest, TheQueriesOfTheItemClassesRun) {
  // Reads through execute.
  const char* const queries[] = {
      "SELECT [value] FROM [system] WHERE [parameter]='version'",
      "SELECT Address,[Target Id] FROM Cibles WHERE [Target Name]='ABS'",
      "SELECT [Address],[Function Name],[XId],[RId] FROM [Fonctions] ORDER BY [Function Name]",
      "SELECT [Address],[Function Name] FROM [Fonctions] ORDER BY [Function Name]",
      "SELECT [Init mode],[Multipoint],[Protocol Name] FROM [Protocoles] ORDER BY [Protocol Name]",
      "SELECT [Type Organe Id],[Libelle] FROM [Type Organe] ORDER BY [Libelle]",
      "SELECT [Type Panne Id],[Libelle] FROM [Type Panne] ORDER BY [Libelle]",
      "SELECT [Target Name],Langue,[Référence],Fonctions.[Function Name],Fonctions.[XId],Fonctions.[RId] FROM "
      "Cibles,Fonctions WHERE Cibles.Address=Fonctions.Address AND [Target Id]={tid}",
      "SELECT [Target Name] FROM Cibles WHERE Address={addr} AND [Target Id]={tid}",
      "SELECT Comment, [Init Mode], Multipoint, Key1, Key2, [Baud Rate], InterByteDelay, KW2Delay, FirstRequestDelay, "
      "ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, RequestToReplyTimeout, ErrorDelay, [Little Endian]"
      " FROM [Paramètres UCE] WHERE [Ecu Id]={tid}",
      "SELECT [Address], [Target Id], [Indice Diag], [code7700], [Code Fournisseur], [Logiciel], [Version], [Langue] "
      "FROM Identification WHERE Address={addr} AND [Target Id]={tid}",
      "SELECT [Request Id],[Request Name],[Request Bytes],[Length Datas],ShiftBytesCount,[Manual Send],[LgVariable],"
      "[Accès Tous],[Accès Usine],[Accès Après Vente],[Accès Etudes],[Accès Constructeur],[Dossier Maintenabilite],"
      "[Commentaire],[Reply Bytes]  FROM [Requêtes] WHERE Address={addr} AND [Target Id]={tid} ORDER BY [Request Name]",
      "SELECT [Request Id],[Request Name],[Request Bytes],[Length Datas],[Manual Send]  FROM [Requêtes] WHERE "
      "Address={addr} AND [Target Id]={tid} ORDER BY [Request Name]",
      "SELECT [Data Name], StartOctet, StartBit, [Little Endian], Param From [Emplacement Donnée] WHERE [Target "
      "Id]={tid}"
      " AND Address={addr} AND [Request Name]='Lecture état' ORDER BY [Data Name]",
      "SELECT [Data Id], [Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, Format, "
      "Ascii, Mnemo, Description From Données WHERE Address={addr} AND [Target Id]={tid} ORDER BY [Data Name]",
      "SELECT [Data Id], Données.[Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, "
      "Format, Ascii, Mnemo, Description From Donnée_Ref,Données WHERE Donnée_Ref.Address=Données.Address AND "
      "Donnée_Ref.[Target Id]=Données.[Target Id] AND Donnée_Ref.[Data Name]=Données.[Data Name] AND "
      "Donnée_Ref.Address={addr} AND Donnée_Ref.[Target Id]={tid} ORDER BY Données.[Data Name]",
      "SELECT [Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, Format, Ascii, Mnemo, "
      "Description , Fiche From Données LEFT JOIN [Fiches Diag] ON (Données.[data Id] = [Fiches Diag].[Data Id]) "
      "WHERE Données.[Data Id]={did}",
      "SELECT [Fiche] FROM [Fiches Diag] WHERE [Data Id] ={did}",
      "SELECT Valeur, Numérique, Liste, Libellé, Info From Listes WHERE [Data Id]={did} AND Numérique=-1 AND Liste=-1 "
      "ORDER BY Valeur",
      "SELECT Valeur From Listes WHERE [Data Id]={did} AND Valeur=1 AND Numérique=-1 AND Liste=-1",
      "SELECT [Organe Id], [Organe Name], Mnemonique, [Type Organe Id], DTC, OBD FROM Organes WHERE Address={addr} "
      "AND [Target Id]={tid} ORDER BY [Organe Name]",
      "SELECT [Organe Id], Organes.[Organe Name], Mnemonique, [Type Organe Id], DTC, OBD,[Request Name] FROM Organes "
      "LEFT JOIN [Lien_DTC_ReqContext] ON (Organes.[Target Id] = [Lien_DTC_ReqContext].[Target Id] AND "
      "Organes.[Organe Name] = [Lien_DTC_ReqContext].[Organe Name] ) WHERE Organes.Address={addr} AND "
      "Organes.[Target Id]={tid} ORDER BY Organes.[Organe Name]",
      "SELECT [Organe Name],[Data Name], [Flag Panne] FROM Lien_Données_ds_Organe WHERE [Target Id]={tid} AND "
      "[Organe Name]='Moteur'",
      "SELECT [Data Name], [Flag Panne] FROM Lien_Données_ds_Organe WHERE Address={addr} AND [Target Id]={tid} AND "
      "[Organe Name]='Moteur'",
      "SELECT  [Request Name] FROM [Lien_DTC_ReqContext]  WHERE [Address]={addr} AND [Target Id]={tid} AND "
      "[Organe Name]='Moteur'",
      "SELECT [Category Id], [Category Name] From Catégories WHERE [Target Id]={tid} ORDER BY [Category Name]",
      "SELECT [Screen Id], [Screen Name], [Init Id], [WindowState], [Height], [Width], [ScreenColor] From Ecrans WHERE "
      "[Target Id]={tid} AND [Category Id]={cid} ORDER BY [Screen Name]",
      "SELECT [Screen Name], [Init Id], [WindowState], [Height], [Width], [ScreenColor] From Ecrans WHERE "
      "[Target Id]={tid} AND [Category Id]={cid} AND [Screen Id]={sid}",
      "SELECT [Button Id], [Caption], [Left], [Top], [Height], [Width], [FontName], [FontSize], [FontBold], "
      "[FontItalic], [Message] From Boutons WHERE [Target Id]={tid} AND [Screen Id]={sid} ORDER BY [Caption]",
      "SELECT [Index], [Address], [Ecu Id], [Request Name], [Delay] From Scenarios WHERE [Target Id]={tid} AND "
      "[Button Id]={bid} ORDER BY [Index]",
      "SELECT [Label Id], [Target Id], [Screen Id], [Text], [Left], [Top], [Height], [Width], [FontName], [FontSize], "
      "[FontBold], [FontItalic], [FontColor], [Color], [Alignment] From Titres WHERE [Target Id]={tid} AND "
      "[Screen Id]={sid} ORDER BY [Text]",
      "SELECT [Display Id], [Type Affich], [Left], [Top], [Height], [Width], [CaptionWidth], [FontName], [FontSize], "
      "[FontBold], [FontItalic], [FontColor], [Color] FROM Affichages WHERE [Target Id]={tid} AND [Screen Id]={sid} "
      "ORDER BY [Left], [Top], [Height], [Width]",
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Data Name], "
      "[Request Name] From Données_Aff WHERE [Target Id] = {tid} AND [Screen Id] = {sid} AND [Display Id]={ddisp} AND "
      "[Type Affich]=3 ORDER BY [Data Name]",
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Request Name], "
      "[LgVariable], [Param] From  Extra_Aff WHERE [Target Id] = {tid} AND [Screen Id] = {sid} AND "
      "[Display Id]={rdisp} AND [Type Affich]=1 ORDER BY [Request Name]",
      "SELECT [Seuil], [Couleur], [SonFlag], [Son] From Seuils WHERE [Display Id]={ddisp} ORDER BY [Seuil]",
  };
  for (const char* q : queries) {
    SCOPED_TRACE(q);
    EXPECT_GE(run(q), 1);  // each finds the sample target's row(s)
  }

  // Names the classes read, as the engine gives them.
  auto params = conn->execute(sub(
      "SELECT Comment, [Init Mode], Multipoint, Key1, Key2, [Baud Rate], InterByteDelay, KW2Delay, FirstRequestDelay, "
      "ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, RequestToReplyTimeout, ErrorDelay, [Little Endian], "
      "Reprogrammable, [Date Officialisation], [Paramètres UCE].[Type Panne Id], [Type Panne].[Libelle] FROM "
      "[Paramètres UCE],[Type Panne] WHERE [Paramètres UCE].[Type Panne Id]=[Type Panne].[Type Panne Id] AND "
      "[Ecu Id]={tid}"));
  ASSERT_FALSE(params->eof());
  EXPECT_EQ(params->field("Type Panne Id").toInt32(), 0);
  EXPECT_EQ(params->field("Libelle").toText(), "Ne contient pas de pannes");
  auto ref =
      conn->execute(sub("SELECT count(*) From [Donnée_Ref] WHERE [Target Id]={tid} AND Address={addr} AND "
                        "[Request Name]='Lecture état' AND [Data Name]='Régime'"));
  EXPECT_EQ(ref->field("count(*)").toInt32(), 1);

  // The whole-target readers: client sets filtered per request and per data.
  auto positions = conn->openClient(sub(
      "SELECT [Emplacement Donnée].* , [Donnée_Ref].[Data Name] AS N FROM [Emplacement Donnée] LEFT JOIN [Donnée_Ref] "
      "ON ([Emplacement Donnée].[Target Id] = [Donnée_Ref].[Target Id] AND [Emplacement Donnée].[Data Name] = "
      "[Donnée_Ref].[Data Name] AND [Emplacement Donnée].[Request Name] = [Donnée_Ref].[Request Name]) WHERE "
      "[Emplacement Donnée].[Target Id]={tid} ORDER BY [Emplacement Donnée].[Data Name]"));
  positions->filter("[Request Name]='" + db::sql::doubleQuotes(kReadRequest) + "'");
  ASSERT_EQ(positions->recordCount(), 2);
  EXPECT_EQ(positions->field("Data Name").toText(), "Régime");
  EXPECT_FALSE(positions->field("N").isNull());
  positions->moveNext();
  EXPECT_TRUE(positions->field("N").isNull());
  EXPECT_EQ(positions->field("StartOctet").toInt32(), 1);

  auto datas = conn->openClient(
      sub("SELECT Données.[Data Id], [Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, "
          "Format, Ascii, Mnemo, Description , Fiche From Données LEFT JOIN [Fiches Diag] ON (Données.[data Id] = "
          "[Fiches Diag].[Data Id]) WHERE Address={addr} AND [Target Id]={tid} ORDER BY [Data Name]"));
  EXPECT_EQ(datas->recordCount(), 3);
  EXPECT_EQ(datas->field("Data Id").toInt64(), t.libreId);  // "Libre" < "Régime" < "Vitesse"
  auto lists =
      conn->openClient(sub("select Listes.* from Listes,données WHERE (Données.[Data Id]=Listes.[Data Id]) "
                           "AND Données.[Target Id]={tid} ORDER BY [Valeur]"));
  lists->filter(sub("[Data Id]={did}"));
  ASSERT_EQ(lists->recordCount(), 2);
  EXPECT_EQ(lists->field("Libellé").toText(), "Arrêt");

  // Result sets opened for update (read once to run the query).
  const char* const updatable[] = {
      "SELECT [Address],[Function Name],[XId],[RId] FROM [Fonctions] WHERE [Address]={addr}",
      "SELECT [Target Name],Langue,[Référence] FROM Cibles WHERE Address={addr} AND [Target Id]={tid}",
      "SELECT [Target Name] FROM Cibles WHERE Address={addr} AND [Target Id]={tid}",
      "SELECT [Target Id],Address,[Target Name],Langue,[Référence] FROM Cibles",
      "SELECT [Target Address], [Target Id], [Ecu Address], [Ecu Id] FROM [Appartenance cible]",
      "SELECT [Ecu Id],Comment, [Init Mode], Multipoint, Key1, Key2, [Baud Rate], InterByteDelay, KW2Delay, "
      "FirstRequestDelay, ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, RequestToReplyTimeout, ErrorDelay, "
      "[Little Endian], Reprogrammable, [Date Officialisation], [Type Panne Id] FROM [Paramètres UCE]",
      "SELECT Comment, [Init Mode], Multipoint, Key1, Key2, [Baud Rate], InterByteDelay, KW2Delay, FirstRequestDelay, "
      "ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, RequestToReplyTimeout, ErrorDelay, [Little Endian], "
      "Reprogrammable, [Date Officialisation], [Type Panne Id] FROM [Paramètres UCE] WHERE [Ecu Id]={tid}",
      "SELECT [Address], [Target Id], [Indice Diag], [code7700], [Code Fournisseur], [Logiciel], [Version], [Langue] "
      "FROM Identification",
      "SELECT [Indice Diag], [code7700], [Code Fournisseur], [Logiciel], [Version] FROM Identification WHERE "
      "Address={addr} AND [Target Id]={tid} AND [Indice Diag]=1 AND [Code Fournisseur]='SUP' AND "
      "[Logiciel]='Logiciel' AND [Version]='V1'",
      "SELECT Address, [Target Id], [Request Id], [Request Name], [Request Bytes], [Length Datas], ShiftBytesCount, "
      "[Manual Send], LgVariable, [Accès Tous], [Accès Usine], [Accès Après Vente], [Accès Etudes], "
      "[Accès Constructeur], [Dossier Maintenabilite], Commentaire,[Reply Bytes] FROM Requêtes",
      "SELECT  [Request Bytes], [Length Datas], ShiftBytesCount, [Manual Send], LgVariable, [Accès Tous],[Accès "
      "Usine], "
      "[Accès Après Vente], [Accès Etudes], [Accès Constructeur], [Dossier Maintenabilite], Commentaire,[Reply Bytes] "
      "FROM [Requêtes] WHERE [Request Id]={rid}",
      "SELECT  [Request Name] FROM [Requêtes] WHERE [Request Id]={rid}",
      "SELECT [Address], [Target Id], [Data Name], [Request Name], [StartOctet], [StartBit], [Little Endian], [Param] "
      "FROM [Emplacement Donnée]",
      "SELECT [Address], [Target Id], [Data Name], [Request Name] FROM [Donnée_Ref]",
      "SELECT  [StartOctet], [StartBit], [Little Endian], [Param] FROM [Emplacement Donnée] WHERE [Target Id]={tid} "
      "AND [Request Name]='Lecture état' AND [Data Name]='Régime'",
      "SELECT [Address], [Target Id], [Data Name], [Data Id], [NumberBits], [Numérique], [Liste], [Unité], [Signé], "
      "[CoeffA], [CoeffB], [CoeffC], [Format], [Ascii], [Mnemo], [Description] FROM Données",
      "SELECT  [NumberBits], [Numérique], [Liste], [Unité], [Signé], [CoeffA], [CoeffB], [CoeffC], [Format], [Ascii], "
      "[Mnemo], [Description] FROM Données WHERE [Data Id]={did}",
      "SELECT [Data Name] FROM Données WHERE [Data Id]={did}",
      "SELECT [Data Id], [Fiche] FROM [Fiches Diag]",
      "SELECT [Fiche] FROM [Fiches Diag] WHERE [Data Id] ={did}",
      "SELECT [Data Id],Valeur, Numérique, Liste, Libellé, Info From Listes",
      "SELECT Valeur, Libellé, Info From Listes WHERE [Data Id]={did} AND Valeur=0 AND Numérique=-1 AND Liste=-1",
      "SELECT Valeur From Listes WHERE [Data Id]={did} AND Valeur=0 AND Numérique=-1 AND Liste=-1",
      "SELECT [Organe Id], [Address], [Target Id], [Organe Name], [Mnemonique], [Type Organe Id], [DTC], [OBD] FROM "
      "Organes",
      "SELECT [Mnemonique], [Type Organe Id], [DTC], [OBD] FROM Organes WHERE [Organe Id]={oid}",
      "SELECT [Organe Name] FROM Organes WHERE [Organe Id]={oid}",
      "SELECT [Address], [Target Id], [Request Name],[Organe Name] FROM [Lien_DTC_ReqContext]",
      "SELECT  [Request Name] FROM [Lien_DTC_ReqContext] WHERE [Address]={addr} AND [Target Id]={tid} AND "
      "[Organe Name]='Moteur'",
      "SELECT [Address], [Target Id], [Data Name], [Organe Name], [Flag Panne] From Lien_Données_ds_Organe",
      "SELECT [Flag Panne] From Lien_Données_ds_Organe WHERE [Target Id]={tid} AND [Data Name]='Vitesse' AND "
      "[Organe Name]='Moteur'",
      "SELECT [Target Id], [Category Id], [Category Name] FROM Catégories",
      "SELECT [Category Name] FROM Catégories WHERE [Category Id]={cid}",
      "SELECT  [Target Id], [Screen Id], [Category Id], [Screen Name], [Init Id], [WindowState], [Height], [Width], "
      "[ScreenColor] FROM Ecrans",
      "SELECT [Screen Name] FROM Ecrans WHERE [Category Id]={cid} AND [Screen Id]={sid} AND [Target Id]={tid}",
      "SELECT [Target Id], [Display Id], [Screen Id],  [Type Affich], [Left], [Top], [Height], [Width], "
      "[CaptionWidth], "
      "[FontName], [FontSize], [FontBold], [FontItalic], [FontColor], [Color] FROM Affichages",
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Data Name], "
      "[Request Name] FROM [Données_Aff]",
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Request Name], "
      "[LgVariable], [Param] FROM [Extra_Aff]",
      "SELECT [Display Id], [Seuil], [Couleur], [SonFlag], [Son] FROM Seuils",
      "SELECT [Label Id], [Target Id], [Screen Id], [Text], [Left], [Top], [Height], [Width], [FontName], [FontSize], "
      "[FontBold], [FontItalic], [FontColor], [Color], [Alignment] FROM Titres",
      "SELECT [Target Id], [Button Id], [Screen Id] FROM Boutons",
      "SELECT [Target Id], [Button Id], [Screen Id], [Caption], [Left], [Top], [Height], [Width], [FontName], "
      "[FontSize], [FontBold], [FontItalic], [Message] FROM Boutons",
      "SELECT [Target Id], [Button Id], [Index], [Address], [Ecu Id], [Request Name], [LgVariable], [Delay] FROM "
      "Scenarios",
      "SELECT [Index] From Scenarios WHERE [Target Id]={tid} AND [Button Id]={bid} ORDER BY [Index]",
  };
  for (const char* q : updatable) {
    SCOPED_TRACE(q);
    EXPECT_GE(runUpdatable(q), 1);
  }
}

TEST_F(SqlTextTest, TheChangesOfTheItemClassesRun) {
  // Each statement with the rows it changes, in an order the relations allow.
  const std::pair<const char*, int> changes[] = {
      {"UPDATE Ecrans SET WindowState=0, Height=400, Width=600, ScreenColor=16777215 WHERE [Target Id]={tid} AND "
       "[Category Id]={cid} AND [Screen Id]={sid}",
       1},
      {"UPDATE Ecrans SET [Init Id]={bid} WHERE [Target Id]={tid} AND [Category Id]={cid} AND [Screen Id]={sid}", 1},
      {"UPDATE Boutons SET Caption='L''aide',[Left]=1, [Top]=2, [Height]=3, [Width]=4, [FontName]=Null, [FontSize]= "
       "8.25, [FontBold]=1, [FontItalic]=0, [Message]='' WHERE [Target Id]={tid} AND [Button Id]={bid} AND "
       "[Screen Id]={sid}",
       1},
      {"UPDATE Scenarios SET [Request Name]='Ecriture',[LgVariable]=0, [Delay]=100 WHERE [Target Id]={tid} AND "
       "[Button Id]={bid} AND [Index]=1",
       1},
      {"UPDATE Scenarios SET [Index]=2 WHERE [Target Id]={tid} AND [Button Id]={bid} AND [Index]=1", 1},
      {"UPDATE Titres SET [Text]='Titre' , [Left]=1, [Top]=2, [Height]=3, [Width]=4, [FontName]='Arial', [FontSize]= "
       "8.25, [FontBold]=1, [FontItalic]=0, [FontColor]=0, [Color]=16777215, [Alignment]=2 WHERE [Target Id]={tid} "
       "AND [Label Id]={lid} AND [Screen Id]={sid}",
       1},
      {"UPDATE Affichages SET [CaptionWidth]=2000, [Left]=0, [Top]=0, [Height]=300, [Width]=4000, [FontName]='Arial', "
       "[FontSize]= 10, [FontBold]=0, [FontItalic]=0, [FontColor]=0, [Color]=16777215 WHERE [Target Id]={tid} AND "
       "[Display Id]={ddisp} AND [Screen Id]={sid}",
       1},
      {"UPDATE Seuils SET [SonFlag]=1, [Couleur]=255, [Son]=3 WHERE [Display Id]={ddisp} AND [Seuil]= 12.5", 1},
      {"UPDATE Seuils SET [Seuil]= 13.5 WHERE [Display Id]={ddisp} AND [Seuil]= 12.5", 1},
      {"DELETE * FROM Seuils WHERE [Display Id]={ddisp} AND [Seuil]= 13.5 AND [Couleur]=255", 1},
      {"DELETE * FROM Identification WHERE Address={addr} AND [Target Id]={tid} AND [Indice Diag]=1 AND "
       "[Code Fournisseur]='SUP' AND [Logiciel]='Logiciel' AND [Version]='V1'",
       1},
      {"DELETE *  From Listes WHERE [Data Id]={did}", 2},
      {"DELETE * from [Fiches Diag] WHERE [Data Id] ={did}", 1},
      {"DELETE * From [Donnée_Ref] WHERE [Target Id]={tid} AND Address={addr} AND [Request Name]='Lecture état' AND "
       "[Data Name]='Régime'",
       1},
      {"DELETE * from Affichages WHERE [Target Id]={tid} AND [Display Id] in (select [Display Id] from Données_Aff "
       "where [Target Id]={tid} AND [Data Name]='Régime')",
       1},
      {"DELETE * from Affichages WHERE [Target Id]={tid} AND [Display Id] in (select [Display Id] from Extra_Aff where "
       "[Target Id]={tid} AND [Request Name]='Lecture état')",
       1},
      {"DELETE * From [Emplacement Donnée] WHERE [Target Id]={tid} AND Address={addr} AND [Request Name]='Lecture "
       "état' "
       "AND [Data Name]='Régime'",
       1},
      {"DELETE * from Données WHERE [Data Id]={did}", 1},
      {"DELETE * From Lien_Données_ds_Organe WHERE [Target Id]={tid} AND [Data Name]='Vitesse' AND "
       "[Organe Name]='Moteur'",
       1},
      {"DELETE * FROM [Lien_DTC_ReqContext] WHERE [Address]={addr} AND [Target Id]={tid} AND [Organe Name]='Moteur'",
       1},
      {"DELETE * FROM Scenarios WHERE [Target Id]={tid} AND [Button Id]={bid} AND [Index]=2", 1},
      {"DELETE * from Scenarios WHERE [Target Id]={tid} AND [Request Name]='Ecriture'", 0},
      {"DELETE * FROM Boutons  WHERE [Target Id]={tid} AND [Button Id]={bid} AND [Screen Id]={sid}", 1},
      {"DELETE * FROM Titres  WHERE [Target Id]={tid} AND [Label Id]={lid} AND [Screen Id]={sid}", 1},
      {"DELETE * FROM Affichages  WHERE [Target Id]={tid} AND [Display Id]={rdisp} AND [Screen Id]={sid}", 0},
      {"DELETE * from Ecrans WHERE [Screen Id]={sid} AND [Target Id]={tid}", 1},
      {"DELETE * from Catégories WHERE [Category Id]={cid}", 1},
      {"DELETE * FROM Organes WHERE [Organe Id]={oid}", 1},
  };
  auto before = count(*conn, "Données");
  {
    // Run in order, each with its effect, then undo them all.
    db::Transaction tx(*conn);
    for (const auto& [c, affected] : changes) {
      SCOPED_TRACE(c);
      run(c);
      EXPECT_EQ(conn->recordsAffected(), affected);
    }
    conn->deferConstraintChecks();
    for (const char* c :
         {"DELETE * From [Requêtes] WHERE [Request Id]={rid}",
          "DELETE * FROM Catégories WHERE "
          "[Target Id]={tid}",
          "DELETE * FROM Organes WHERE [Target Id]={tid}", "DELETE * FROM Cibles WHERE [Target Id]={tid}"}) {
      SCOPED_TRACE(c);
      run(c);
    }
  }
  EXPECT_EQ(count(*conn, "Données"), before);
}

}  // namespace
}  // namespace kavrel::test
