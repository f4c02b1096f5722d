-- Definitions database, schema version 4.
--
-- Conventions:
--  * identifiers are the French names the item classes use, bracketed where
--    they hold blanks; texts are UTF-8;
--  * booleans are INTEGER holding -1 (true) or 0 (false), some tables 1/0:
--    any non-zero value reads true;
--  * autonumbers are INTEGER PRIMARY KEY AUTOINCREMENT, so an id is never
--    given twice, even after the row with the highest id was deleted;
--  * rows refer to requests, data items and organs by name within their
--    target; renaming the parent carries the new name (ON UPDATE CASCADE);
--  * "removes" relations are ON DELETE CASCADE; "refuses" relations are
--    NO ACTION (never RESTRICT), so that a transaction that defers its
--    checks can delete parents first and their children afterwards;
--  * length limits are counted in characters;
--  * names (targets, requests, data, organs, catalogue entries, categories,
--    screens), the columns that refer to them, and the captions and label
--    texts lists are sorted by, use the collation KAVREL_NAME: the library's
--    name rule (letter case ignored for every letter, accents kept, French
--    order), registered by the library on each connection it opens. UNIQUE,
--    "=" and ORDER BY on these columns follow that rule.
--
-- The connection turns foreign keys on; a database opened elsewhere without
-- them would not enforce the relations below.

CREATE TABLE [system] (
  [parameter] TEXT NOT NULL PRIMARY KEY,
  [value]     TEXT
);

-- Shared catalogues ---------------------------------------------------------

-- One diagnostic function per target address; XId/RId are CAN identifiers
-- (Null = none).
CREATE TABLE [Fonctions] (
  [Address]       INTEGER PRIMARY KEY,
  [Function Name] TEXT COLLATE KAVREL_NAME,
  [XId]           INTEGER,
  [RId]           INTEGER
);

CREATE TABLE [Protocoles] (
  [Protocol Name] TEXT NOT NULL PRIMARY KEY COLLATE KAVREL_NAME,
  [Init mode]     INTEGER,
  [Multipoint]    INTEGER
);

CREATE TABLE [Type Organe] (
  [Type Organe Id] INTEGER PRIMARY KEY,
  [Libelle]        TEXT COLLATE KAVREL_NAME
);

CREATE TABLE [Type Panne] (
  [Type Panne Id] INTEGER PRIMARY KEY,
  [Libelle]       TEXT COLLATE KAVREL_NAME
);

-- Targets -------------------------------------------------------------------

CREATE TABLE Cibles (
  [Target Id]   INTEGER PRIMARY KEY AUTOINCREMENT,
  Address       INTEGER,
  [Target Name] TEXT COLLATE KAVREL_NAME,
  Langue        TEXT,
  [Référence]   INTEGER
);
CREATE INDEX [Cibles by name] ON Cibles ([Target Name]);

-- A target belongs to ECUs (a new target to itself).
CREATE TABLE [Appartenance cible] (
  [Target Address] INTEGER,
  [Target Id]      INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Ecu Address]    INTEGER,
  [Ecu Id]         INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  UNIQUE ([Target Id], [Ecu Id])
);
CREATE INDEX [Appartenance cible by ecu] ON [Appartenance cible] ([Ecu Id]);

-- Communication parameters, one row per target. [Type Panne Id] names a
-- failure type without a relation: a missing type reads as "not found"
-- rather than being refused on insert.
CREATE TABLE [Paramètres UCE] (
  [Ecu Id]                INTEGER PRIMARY KEY REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  Comment                 TEXT CHECK (length(Comment) <= 255),
  [Init Mode]             INTEGER,
  Multipoint              INTEGER,
  Key1                    INTEGER,
  Key2                    INTEGER,
  [Baud Rate]             INTEGER,
  InterByteDelay          INTEGER,
  KW2Delay                INTEGER,
  FirstRequestDelay       INTEGER,
  ReplyToRequestDelay     INTEGER,
  TesterPresentDelay      INTEGER,
  KW2Timeout              INTEGER,
  RequestToReplyTimeout   INTEGER,
  ErrorDelay              INTEGER,
  [Little Endian]         INTEGER,
  Reprogrammable          TEXT CHECK (length(Reprogrammable) <= 50),
  [Date Officialisation]  TEXT,
  [Type Panne Id]         INTEGER
);

-- Automatic identification entries; no key of their own.
CREATE TABLE Identification (
  Address            INTEGER,
  [Target Id]        INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Indice Diag]      INTEGER,
  code7700           TEXT,
  [Code Fournisseur] TEXT,
  Logiciel           TEXT,
  Version            TEXT,
  Langue             TEXT
);
CREATE INDEX [Identification by target] ON Identification ([Target Id]);

-- Requests and data -----------------------------------------------------------

CREATE TABLE Requêtes (
  [Request Id]             INTEGER PRIMARY KEY AUTOINCREMENT,
  Address                  INTEGER,
  [Target Id]              INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Request Name]           TEXT NOT NULL COLLATE KAVREL_NAME,
  [Request Bytes]          TEXT,
  [Length Datas]           INTEGER,
  ShiftBytesCount          INTEGER,
  [Manual Send]            INTEGER,
  LgVariable               INTEGER,
  [Accès Tous]             INTEGER,
  [Accès Usine]            INTEGER,
  [Accès Après Vente]      INTEGER,
  [Accès Etudes]           INTEGER,
  [Accès Constructeur]     INTEGER,
  [Dossier Maintenabilite] INTEGER,
  Commentaire              TEXT,
  [Reply Bytes]            TEXT,
  UNIQUE ([Target Id], [Request Name])
);

-- Data names are unique per target (by the name rule).
CREATE TABLE Données (
  [Data Id]    INTEGER PRIMARY KEY AUTOINCREMENT,
  Address      INTEGER,
  [Target Id]  INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Data Name]  TEXT NOT NULL COLLATE KAVREL_NAME CHECK (length([Data Name]) <= 70),
  NumberBits   INTEGER,
  Numérique    INTEGER,
  Liste        INTEGER,
  Unité        TEXT,
  Signé        INTEGER,
  CoeffA       REAL,
  CoeffB       REAL,
  CoeffC       REAL,
  Format       TEXT,
  Ascii        INTEGER,
  Mnemo        TEXT,
  Description  TEXT CHECK (length(Description) <= 255),
  UNIQUE ([Target Id], [Data Name])
);

CREATE TABLE [Fiches Diag] (
  [Data Id] INTEGER PRIMARY KEY REFERENCES Données ([Data Id]) ON DELETE CASCADE,
  Fiche     TEXT
);

-- Value lists: a value appears once per data item and flags.
CREATE TABLE Listes (
  [Data Id] INTEGER NOT NULL REFERENCES Données ([Data Id]) ON DELETE CASCADE,
  Valeur    INTEGER NOT NULL,
  Numérique INTEGER NOT NULL,
  Liste     INTEGER NOT NULL,
  Libellé   TEXT CHECK (length(Libellé) <= 80),
  Info      TEXT,
  PRIMARY KEY ([Data Id], Valeur, Numérique, Liste)
);

-- Where a data item lies in a request. Deleting the request or the data item
-- removes its positions, unless a position is still in use (a reference
-- position, a display), which refuses the delete.
CREATE TABLE [Emplacement Donnée] (
  Address         INTEGER,
  [Target Id]     INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Request Name]  TEXT NOT NULL COLLATE KAVREL_NAME,
  [Data Name]     TEXT NOT NULL COLLATE KAVREL_NAME,
  StartOctet      INTEGER,
  StartBit        INTEGER,
  [Little Endian] INTEGER,
  Param           INTEGER,
  PRIMARY KEY ([Target Id], [Request Name], [Data Name]),
  FOREIGN KEY ([Target Id], [Request Name]) REFERENCES Requêtes ([Target Id], [Request Name])
    ON UPDATE CASCADE ON DELETE CASCADE,
  FOREIGN KEY ([Target Id], [Data Name]) REFERENCES Données ([Target Id], [Data Name])
    ON UPDATE CASCADE ON DELETE CASCADE
);
CREATE INDEX [Emplacement Donnée by data] ON [Emplacement Donnée] ([Target Id], [Data Name]);

-- The reference position of a data item (at most one per data item). The
-- position it names cannot be deleted while it stands; deleting the data item
-- removes it.
CREATE TABLE Donnée_Ref (
  Address        INTEGER,
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Data Name]    TEXT NOT NULL COLLATE KAVREL_NAME,
  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  UNIQUE ([Target Id], [Data Name]),
  FOREIGN KEY ([Target Id], [Request Name], [Data Name])
    REFERENCES [Emplacement Donnée] ([Target Id], [Request Name], [Data Name])
    ON UPDATE CASCADE ON DELETE NO ACTION,
  FOREIGN KEY ([Target Id], [Data Name]) REFERENCES Données ([Target Id], [Data Name])
    ON UPDATE CASCADE ON DELETE CASCADE
);
CREATE INDEX [Donnée_Ref by position] ON Donnée_Ref ([Target Id], [Request Name], [Data Name]);

-- Organs -------------------------------------------------------------------

CREATE TABLE Organes (
  [Organe Id]      INTEGER PRIMARY KEY AUTOINCREMENT,
  Address          INTEGER,
  [Target Id]      INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Organe Name]    TEXT NOT NULL COLLATE KAVREL_NAME CHECK (length([Organe Name]) <= 70),
  Mnemonique       TEXT CHECK (length(Mnemonique) <= 50),
  [Type Organe Id] INTEGER,
  DTC              INTEGER,
  OBD              INTEGER,
  UNIQUE ([Target Id], [Organe Name])
);

-- The freeze-frame request of an organ (one per organ).
CREATE TABLE [Lien_DTC_ReqContext] (
  Address        INTEGER,
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  [Organe Name]  TEXT NOT NULL COLLATE KAVREL_NAME,
  UNIQUE ([Target Id], [Organe Name]),
  FOREIGN KEY ([Target Id], [Request Name]) REFERENCES Requêtes ([Target Id], [Request Name])
    ON UPDATE CASCADE ON DELETE NO ACTION,
  FOREIGN KEY ([Target Id], [Organe Name]) REFERENCES Organes ([Target Id], [Organe Name])
    ON UPDATE CASCADE ON DELETE CASCADE
);
CREATE INDEX [Lien_DTC_ReqContext by request] ON [Lien_DTC_ReqContext] ([Target Id], [Request Name]);

-- Data of an organ, each linked once. A data item used by an organ cannot be
-- deleted; deleting the organ removes its links.
CREATE TABLE Lien_Données_ds_Organe (
  Address       INTEGER,
  [Target Id]   INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Data Name]   TEXT NOT NULL COLLATE KAVREL_NAME,
  [Organe Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  [Flag Panne]  INTEGER,
  UNIQUE ([Target Id], [Organe Name], [Data Name]),
  FOREIGN KEY ([Target Id], [Data Name]) REFERENCES Données ([Target Id], [Data Name])
    ON UPDATE CASCADE ON DELETE NO ACTION,
  FOREIGN KEY ([Target Id], [Organe Name]) REFERENCES Organes ([Target Id], [Organe Name])
    ON UPDATE CASCADE ON DELETE CASCADE
);
CREATE INDEX [Lien_Données_ds_Organe by data] ON Lien_Données_ds_Organe ([Target Id], [Data Name]);

-- Screens ------------------------------------------------------------------

CREATE TABLE Catégories (
  [Category Id]   INTEGER PRIMARY KEY AUTOINCREMENT,
  [Target Id]     INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Category Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  UNIQUE ([Target Id], [Category Name])
);

-- A category that still has screens cannot be deleted.
CREATE TABLE Ecrans (
  [Screen Id]   INTEGER PRIMARY KEY AUTOINCREMENT,
  [Target Id]   INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Category Id] INTEGER NOT NULL REFERENCES Catégories ([Category Id]) ON DELETE NO ACTION,
  [Screen Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  [Init Id]     INTEGER,
  WindowState   INTEGER,
  Height        INTEGER,
  Width         INTEGER,
  ScreenColor   INTEGER,
  UNIQUE ([Category Id], [Screen Name])
);
CREATE INDEX [Ecrans by target] ON Ecrans ([Target Id]);

-- Labels, buttons and displays keep their screen from being deleted.
CREATE TABLE Titres (
  [Label Id]  INTEGER PRIMARY KEY AUTOINCREMENT,
  [Target Id] INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Screen Id] INTEGER NOT NULL REFERENCES Ecrans ([Screen Id]) ON DELETE NO ACTION,
  [Text]      TEXT COLLATE KAVREL_NAME,
  [Left]      INTEGER,
  [Top]       INTEGER,
  Height      INTEGER,
  Width       INTEGER,
  FontName    TEXT,
  FontSize    REAL,
  FontBold    INTEGER,
  FontItalic  INTEGER,
  FontColor   INTEGER,
  Color       INTEGER,
  Alignment   INTEGER
);
CREATE INDEX [Titres by screen] ON Titres ([Screen Id]);
CREATE INDEX [Titres by target] ON Titres ([Target Id]);

CREATE TABLE Boutons (
  [Button Id] INTEGER PRIMARY KEY AUTOINCREMENT,
  [Target Id] INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Screen Id] INTEGER NOT NULL REFERENCES Ecrans ([Screen Id]) ON DELETE NO ACTION,
  Caption     TEXT COLLATE KAVREL_NAME,
  [Left]      INTEGER,
  [Top]       INTEGER,
  Height      INTEGER,
  Width       INTEGER,
  FontName    TEXT,
  FontSize    REAL,
  FontBold    INTEGER,
  FontItalic  INTEGER,
  Message     TEXT
);
CREATE INDEX [Boutons by screen] ON Boutons ([Screen Id]);
CREATE INDEX [Boutons by target] ON Boutons ([Target Id]);

-- Scenario steps: deleting the button removes them; a request they send
-- cannot be deleted.
CREATE TABLE Scenarios (
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Button Id]    INTEGER NOT NULL REFERENCES Boutons ([Button Id]) ON DELETE CASCADE,
  [Index]        INTEGER NOT NULL,
  Address        INTEGER,
  [Ecu Id]       INTEGER,
  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  LgVariable     INTEGER,
  Delay          INTEGER,
  UNIQUE ([Target Id], [Button Id], [Index]),
  FOREIGN KEY ([Target Id], [Request Name]) REFERENCES Requêtes ([Target Id], [Request Name])
    ON UPDATE CASCADE ON DELETE NO ACTION
);
CREATE INDEX [Scenarios by button] ON Scenarios ([Button Id]);
CREATE INDEX [Scenarios by request] ON Scenarios ([Target Id], [Request Name]);

-- Display ids are autonumbers, unique across the database (thresholds refer
-- to a display by its id alone).
CREATE TABLE Affichages (
  [Display Id]   INTEGER PRIMARY KEY AUTOINCREMENT,
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Screen Id]    INTEGER NOT NULL REFERENCES Ecrans ([Screen Id]) ON DELETE NO ACTION,
  [Type Affich]  INTEGER,
  [Left]         INTEGER,
  [Top]          INTEGER,
  Height         INTEGER,
  Width          INTEGER,
  CaptionWidth   INTEGER,
  FontName       TEXT,
  FontSize       INTEGER,
  FontBold       INTEGER,
  FontItalic     INTEGER,
  FontColor      INTEGER,
  Color          INTEGER
);
CREATE INDEX [Affichages by screen] ON Affichages ([Screen Id]);
CREATE INDEX [Affichages by target] ON Affichages ([Target Id]);

-- A display's data link: the position shown cannot be deleted while shown.
CREATE TABLE Données_Aff (
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Screen Id]    INTEGER,
  [Display Id]   INTEGER NOT NULL REFERENCES Affichages ([Display Id]) ON DELETE CASCADE,
  [Type Affich]  INTEGER,
  [Ecu Address]  INTEGER,
  [Ecu Id]       INTEGER,
  [Data Name]    TEXT NOT NULL COLLATE KAVREL_NAME,
  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  FOREIGN KEY ([Target Id], [Request Name], [Data Name])
    REFERENCES [Emplacement Donnée] ([Target Id], [Request Name], [Data Name])
    ON UPDATE CASCADE ON DELETE NO ACTION
);
CREATE INDEX [Données_Aff by display] ON Données_Aff ([Display Id]);
CREATE INDEX [Données_Aff by position] ON Données_Aff ([Target Id], [Request Name], [Data Name]);
CREATE INDEX [Données_Aff by data] ON Données_Aff ([Target Id], [Data Name]);

-- A display's request link: the request cannot be deleted while shown.
CREATE TABLE Extra_Aff (
  [Target Id]    INTEGER NOT NULL REFERENCES Cibles ([Target Id]) ON DELETE CASCADE,
  [Screen Id]    INTEGER,
  [Display Id]   INTEGER NOT NULL REFERENCES Affichages ([Display Id]) ON DELETE CASCADE,
  [Type Affich]  INTEGER,
  [Ecu Address]  INTEGER,
  [Ecu Id]       INTEGER,
  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,
  LgVariable     INTEGER,
  Param          INTEGER,
  FOREIGN KEY ([Target Id], [Request Name]) REFERENCES Requêtes ([Target Id], [Request Name])
    ON UPDATE CASCADE ON DELETE NO ACTION
);
CREATE INDEX [Extra_Aff by display] ON Extra_Aff ([Display Id]);
CREATE INDEX [Extra_Aff by request] ON Extra_Aff ([Target Id], [Request Name]);

-- Thresholds of a display; the same value may appear twice.
CREATE TABLE Seuils (
  [Display Id] INTEGER NOT NULL REFERENCES Affichages ([Display Id]) ON DELETE CASCADE,
  Seuil        REAL,
  Couleur      INTEGER,
  SonFlag      INTEGER,
  Son          INTEGER
);
CREATE INDEX [Seuils by display] ON Seuils ([Display Id]);
