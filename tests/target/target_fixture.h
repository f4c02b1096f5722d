// A session on a fresh database whose catalogues hold a few functions,
// protocols and failure types, for the target tests.
#pragma once

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"

namespace kavrel::test {

// CAN identifier with bit 31 set: extended, identifier bits 417001744.
inline constexpr int32_t kExtendedId = -1730481904;

class SessionDb {
 public:
  SessionDb() {
    conn = db.connection();
    conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (122,'ABS',NULL,NULL)");
    conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (65,'Injection',"
                  "-1730481904,2016)");
    conn->execute("INSERT INTO [Protocoles] ([Protocol Name],[Init mode],[Multipoint]) VALUES ('KWP fast',2,-1)");
    conn->execute("INSERT INTO [Protocoles] ([Protocol Name],[Init mode],[Multipoint]) VALUES ('VAN',7,0)");
    conn->execute("INSERT INTO [Type Panne] ([Type Panne Id],[Libelle]) VALUES (0,'Ne contient pas de pannes')");
    conn->execute("INSERT INTO [Type Panne] ([Type Panne Id],[Libelle]) VALUES (3,'Pannes codées')");
    conn->execute("INSERT INTO [Type Organe] ([Type Organe Id],[Libelle]) VALUES (1,'Entrée')");
    session = KavrelDatabase::create();
    session->setDbConnection(conn);
    session->DbRead();
    clearLastError();
  }
  int64_t count(const std::string& sqlCount) {
    auto rs = conn->execute(sqlCount);
    return rs->field(0).toInt64();
  }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
  std::shared_ptr<KavrelDatabase> session;
};

}  // namespace kavrel::test
