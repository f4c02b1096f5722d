#include "kavrel/target/target_param_item.h"

#include <string>
#include <utility>

#include "kavrel/catalogues/function_items.h"
#include "kavrel/catalogues/panne_items.h"
#include "kavrel/catalogues/protocol_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "target/target_support.h"
#include "target/target_read.h"

namespace kavrel {

using target::addLine;
using target::endLines;
using target::num;

namespace {

constexpr const char* kColumns =
    "SELECT Comment, [Init Mode], Multipoint, Key1, Key2, [Baud Rate], InterByteDelay, KW2Delay, "
    "FirstRequestDelay, ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, RequestToReplyTimeout, ErrorDelay, ";

constexpr const char* kNoFailure = "Ne contient pas de pannes";
constexpr const char* kLoadSource = "TargetParamItem.loadXml";

constexpr uint32_t kCanIdMask = 0x1FFFFFFFu;
constexpr uint32_t kExtendedFlag = 0x80000000u;

// Stores a changed value, sets the changed flag and raises the event; an
// equal value does nothing.
template <class T>
void assign(T& field, T value, bool& changed, const Event<>& event) {
  if (field == value) return;
  field = std::move(value);
  changed = true;
  event.raise();
}

std::shared_ptr<KavrelDatabase> sessionOf(const std::shared_ptr<TargetItem>& t) {
  return t ? t->parent() : nullptr;
}

void writeCanId(xml::Node can, const char* holderName, int32_t id) {
  xml::Node holder = addLine(can, holderName);
  xml::Node c = addLine(holder, "CANId");
  if (id >= 0) {
    c.setAttribute("Value", num(id));
  } else {
    c.setAttribute("Value", std::to_string(static_cast<uint32_t>(id) & kCanIdMask));
    c.setAttribute("Extended", "1");
  }
  endLines(holder);
}

// "<holder>/CANId": -1 when absent.
int32_t readCanId(const xml::Node& can, const char* holderName) {
  xml::Node c = can.child(holderName).isNull() ? xml::Node() : can.child(holderName).child("CANId");
  int32_t value = -1;
  if (!target::attrInt(c, "Value", value, kLoadSource)) return -1;
  bool extended = false;
  target::attrBool(c, "Extended", extended, kLoadSource);
  if (extended) value = static_cast<int32_t>(static_cast<uint32_t>(value) | kExtendedFlag);
  return value;
}

}  // namespace

// ---- setters

void TargetParamItem::setInitMode(int32_t v) { assign(initMode_, v, changed_, ValueChanged); }
void TargetParamItem::setMultiPoint(bool v) { assign(multiPoint_, v, changed_, ValueChanged); }
void TargetParamItem::setKey1(int32_t v) { assign(key1_, v, changed_, ValueChanged); }
void TargetParamItem::setKey2(int32_t v) { assign(key2_, v, changed_, ValueChanged); }
void TargetParamItem::setBaudRate(int32_t v) { assign(BaudRate_, v, changed_, ValueChanged); }
void TargetParamItem::setInterByteDelay(int32_t v) { assign(InterByteDelay_, v, changed_, ValueChanged); }
void TargetParamItem::setKW2Delay(int32_t v) { assign(KW2Delay_, v, changed_, ValueChanged); }
void TargetParamItem::setFirstRequestDelay(int32_t v) { assign(FirstRequestDelay_, v, changed_, ValueChanged); }
void TargetParamItem::setReplyToRequestDelay(int32_t v) { assign(ReplyToRequestDelay_, v, changed_, ValueChanged); }
void TargetParamItem::setTesterPresentDelay(int32_t v) { assign(TesterPresentDelay_, v, changed_, ValueChanged); }
void TargetParamItem::setKW2Timeout(int32_t v) { assign(KW2Timeout_, v, changed_, ValueChanged); }
void TargetParamItem::setRequestToReplyTimeout(int32_t v) {
  assign(RequestToReplyTimeout_, v, changed_, ValueChanged);
}
void TargetParamItem::setErrorDelay(int32_t v) { assign(ErrorDelay_, v, changed_, ValueChanged); }
void TargetParamItem::setLittleEndian(bool v) { assign(LittleEndian_, v, changed_, ValueChanged); }
void TargetParamItem::setReprogrammable(std::string v) {
  assign(Reprogrammable_, std::move(v), changed_, ValueChanged);
}
void TargetParamItem::setDateOfficialisation(std::string v) {
  assign(DateOfficialisation_, std::move(v), changed_, ValueChanged);
}
void TargetParamItem::setComment(std::string v) { assign(Comment_, std::move(v), changed_, ValueChanged); }

void TargetParamItem::setTypePanneId(int32_t v) {
  TypePanneId_ = v;
  // The label follows from the session's catalogue when it is known there.
  trap([&] {
    auto session = sessionOf(parent());
    if (!session || !session->Pannes()) return;
    if (auto p = session->Pannes()->ItemId(v)) TypePanne_ = p->libelle();
  });
  changed_ = true;
}

void TargetParamItem::setTypePanne(std::string v) {
  if (TypePanne_ == v) return;
  TypePanne_ = std::move(v);
  trap([&] {
    auto session = sessionOf(parent());
    if (!session || !session->Pannes()) return;
    if (auto p = session->Pannes()->ItemName(TypePanne_)) TypePanneId_ = p->id();
  });
  changed_ = true;
  ValueChanged.raise();
}

// ---- defaults

void TargetParamItem::clear() { parent_.reset(); }

bool TargetParamItem::isDefaultValue(targetParameter param, ParamValue& defaultValue) const {
  const TargetParamItem d;
  auto intDefault = [&](int32_t current, int32_t def) {
    defaultValue = def;
    return current == def;
  };
  switch (param) {
    case p_initMode: return intDefault(initMode_, d.initMode_);
    case p_multiPoint: defaultValue = d.multiPoint_; return multiPoint_ == d.multiPoint_;
    case p_key1: return intDefault(key1_, d.key1_);
    case p_key2: return intDefault(key2_, d.key2_);
    case p_BaudRate: return intDefault(BaudRate_, d.BaudRate_);
    case p_InterByteDelay: return intDefault(InterByteDelay_, d.InterByteDelay_);
    case p_KW2Delay: return intDefault(KW2Delay_, d.KW2Delay_);
    case p_FirstRequestDelay: return intDefault(FirstRequestDelay_, d.FirstRequestDelay_);
    case p_ReplyToRequestDelay: return intDefault(ReplyToRequestDelay_, d.ReplyToRequestDelay_);
    case p_TesterPresentDelay: return intDefault(TesterPresentDelay_, d.TesterPresentDelay_);
    case p_KW2Timeout: return intDefault(KW2Timeout_, d.KW2Timeout_);
    case p_RequestToReplyTimeout: return intDefault(RequestToReplyTimeout_, d.RequestToReplyTimeout_);
    case p_ErrorDelay: return intDefault(ErrorDelay_, d.ErrorDelay_);
    case p_LittleEndian: defaultValue = d.LittleEndian_; return LittleEndian_ == d.LittleEndian_;
    case p_Reprogrammable: defaultValue = std::string(); return Reprogrammable_.empty();
    default:
      // The approval date is never reported as being at its default.
      defaultValue = std::monostate{};
      return false;
  }
}

void TargetParamItem::SetDefaultValue(targetParameter param) {
  const TargetParamItem d;
  switch (param) {
    case p_initMode: setInitMode(d.initMode_); break;
    case p_multiPoint: setMultiPoint(d.multiPoint_); break;
    case p_key1: setKey1(d.key1_); break;
    case p_key2: setKey2(d.key2_); break;
    case p_BaudRate: setBaudRate(d.BaudRate_); break;
    case p_InterByteDelay: setInterByteDelay(d.InterByteDelay_); break;
    case p_KW2Delay: setKW2Delay(d.KW2Delay_); break;
    case p_FirstRequestDelay: setFirstRequestDelay(d.FirstRequestDelay_); break;
    case p_ReplyToRequestDelay: setReplyToRequestDelay(d.ReplyToRequestDelay_); break;
    case p_TesterPresentDelay: setTesterPresentDelay(d.TesterPresentDelay_); break;
    case p_KW2Timeout: setKW2Timeout(d.KW2Timeout_); break;
    case p_RequestToReplyTimeout: setRequestToReplyTimeout(d.RequestToReplyTimeout_); break;
    case p_ErrorDelay: setErrorDelay(d.ErrorDelay_); break;
    case p_LittleEndian: setLittleEndian(d.LittleEndian_); break;
    case p_Reprogrammable: setReprogrammable(std::string()); break;
    case p_DateOfficialisation: setDateOfficialisation(std::string()); break;
  }
}

// ---- database

std::string detail::targetParamsSql(int32_t targetid) {
  return std::string(kColumns) +
         "[Little Endian], Reprogrammable, [Date Officialisation], [Paramètres UCE].[Type Panne Id], "
         "[Type Panne].[Libelle]" +
         " FROM [Paramètres UCE],[Type Panne]" +
         " WHERE [Paramètres UCE].[Type Panne Id]=[Type Panne].[Type Panne Id] AND [Ecu Id]=" + num(targetid);
}

void TargetParamItem::DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  if (!target) raise(100, "TargetParamItem.DbRead", "Target not defined");
  parent_ = target;
  const int32_t targetid = target->targetid();
  auto rs = conn.execute(detail::targetParamsSql(targetid));
  if (rs->eof()) {
    rs->close();
    changed_ = true;
    raise(99, "TargetParamItem.DbRead", "Parameters not found");
  }
  Comment_ = rs->field(0).toText();
  target::fieldInt(*rs, 1, initMode_);
  target::fieldBool(*rs, 2, multiPoint_);
  target::fieldInt(*rs, 3, key1_);
  target::fieldInt(*rs, 4, key2_);
  target::fieldInt(*rs, 5, BaudRate_);
  target::fieldInt(*rs, 6, InterByteDelay_);
  target::fieldInt(*rs, 7, KW2Delay_);
  target::fieldInt(*rs, 8, FirstRequestDelay_);
  target::fieldInt(*rs, 9, ReplyToRequestDelay_);
  target::fieldInt(*rs, 10, TesterPresentDelay_);
  target::fieldInt(*rs, 11, KW2Timeout_);
  target::fieldInt(*rs, 12, RequestToReplyTimeout_);
  target::fieldInt(*rs, 13, ErrorDelay_);
  target::fieldBool(*rs, 14, LittleEndian_);
  Reprogrammable_ = rs->field(15).toText();
  DateOfficialisation_ = rs->field(16).toText();
  target::fieldInt(*rs, 17, TypePanneId_);
  TypePanne_ = rs->field(18).toText();
  rs->close();
  changed_ = false;
}

void TargetParamItem::dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  if (!target) raise(100, "TargetParamItem.dbReadKVR", "Target not defined");
  parent_ = target;
  const int32_t targetid = target->targetid();
  auto rs = conn.execute(std::string(kColumns) + "[Little Endian]" + " FROM [Paramètres UCE]" +
                         " WHERE [Ecu Id]=" + num(targetid));
  Comment_ = rs->field("Comment").toText();
  target::fieldInt(*rs, "Init Mode", initMode_);
  target::fieldBool(*rs, "Multipoint", multiPoint_);
  target::fieldInt(*rs, "Key1", key1_);
  target::fieldInt(*rs, "Key2", key2_);
  target::fieldInt(*rs, "Baud Rate", BaudRate_);
  target::fieldInt(*rs, "InterByteDelay", InterByteDelay_);
  target::fieldInt(*rs, "KW2Delay", KW2Delay_);
  target::fieldInt(*rs, "FirstRequestDelay", FirstRequestDelay_);
  target::fieldInt(*rs, "ReplyToRequestDelay", ReplyToRequestDelay_);
  target::fieldInt(*rs, "TesterPresentDelay", TesterPresentDelay_);
  target::fieldInt(*rs, "KW2Timeout", KW2Timeout_);
  target::fieldInt(*rs, "RequestToReplyTimeout", RequestToReplyTimeout_);
  target::fieldInt(*rs, "ErrorDelay", ErrorDelay_);
  target::fieldBool(*rs, "Little Endian", LittleEndian_);
  rs->close();
  changed_ = false;
}

namespace {

// The columns written by dbInsert and dbUpdate, with their conversions.
void writeColumns(db::UpdatableRecordset& rs, const TargetParamItem& p) {
  rs.setField("Comment", text::left(text::trim(p.Comment()), 255));
  rs.setField("Init Mode", p.initMode());
  rs.setField("Multipoint", p.multiPoint());
  rs.setField("Key1", p.key1());
  rs.setField("Key2", p.key2());
  rs.setField("Baud Rate", p.BaudRate());
  rs.setField("InterByteDelay", p.InterByteDelay());
  rs.setField("KW2Delay", p.KW2Delay());
  rs.setField("FirstRequestDelay", p.FirstRequestDelay());
  rs.setField("ReplyToRequestDelay", p.ReplyToRequestDelay());
  rs.setField("TesterPresentDelay", p.TesterPresentDelay());
  rs.setField("KW2Timeout", p.KW2Timeout());
  rs.setField("RequestToReplyTimeout", p.RequestToReplyTimeout());
  rs.setField("ErrorDelay", p.ErrorDelay());
  rs.setField("Little Endian", p.LittleEndian());
  std::string reprog = text::trim(p.Reprogrammable());
  rs.setField("Reprogrammable", reprog.empty() ? db::Value() : db::Value(text::left(reprog, 50)));
  rs.setField("Date Officialisation",
              p.DateOfficialisation().empty() ? db::Value() : db::Value(p.DateOfficialisation()));
  rs.setField("Type Panne Id", p.TypePanneId());
}

constexpr const char* kWriteColumns = "[Little Endian], Reprogrammable, [Date Officialisation], [Type Panne Id]";

}  // namespace

void TargetParamItem::dbInsert(db::Connection& conn) {
  auto target = parent();
  if (!target) raise(100, "TargetParamItem.dbInsert", "Target not defined");
  auto rs = conn.openUpdatable(std::string("SELECT [Ecu Id],Comment, [Init Mode], Multipoint, Key1, Key2, "
                                           "[Baud Rate], InterByteDelay, KW2Delay, ") +
                               "FirstRequestDelay, ReplyToRequestDelay, TesterPresentDelay, KW2Timeout, "
                               "RequestToReplyTimeout, ErrorDelay, " +
                               kWriteColumns + " FROM [Paramètres UCE]");
  rs->addNew();
  rs->setField("Ecu Id", target->targetid());
  writeColumns(*rs, *this);
  rs->update();
  rs->close();
  changed_ = false;
}

void TargetParamItem::dbUpdate(db::Connection& conn) {
  auto target = parent();
  if (!target) raise(100, "TargetParamItem.dbUpdate", "Target not defined");
  auto rs = conn.openUpdatable(std::string(kColumns) + kWriteColumns + " FROM [Paramètres UCE] WHERE [Ecu Id]=" +
                               num(target->targetid()));
  if (rs->eof()) {
    rs->close();
    raise(100, "TargetParamItem.dbUpdate", "Target parameters not found");
  }
  writeColumns(*rs, *this);
  rs->update();
  rs->close();
  changed_ = false;
}

// ---- XML
//
// Line descriptions, by init mode (every attribute always written, except
// that "KW2" has its "Timeout" only in "Protocol" and in the mode-1 "ISO8"):
//   other:  <Protocol Name InitMode Multipoint BaudRate> InterByte ReplyToRequest
//           RequestToReply TesterPresent OnError KW1 KW2 KW2_ FirstRequest
//   0:      <K BaudRate> <ISO8> L KW1 KW2 FirstRequest </ISO8> + the five timings
//   1:      <K BaudRate> <KWP Multipoint> <ISO8> L KW1 KW2 FirstRequest </ISO8>
//           KW2_ </KWP> + the five timings
//   2:      <K BaudRate> <KWP Multipoint> <FastInit> KW1 KW2 </FastInit> </KWP>
//           + the five timings
//   3, 255: <CAN BaudRate Multipoint InitMode> SendId/CANId ReceiveId/CANId
// with InterByte@Delay, ReplyToRequest@Delay, RequestToReply@Timeout,
// TesterPresent@Delay, OnError@Delay, KW1@Value, KW2@Value(+@Timeout),
// KW2_@Delay, FirstRequest@Delay wherever these elements stand.

namespace {

void writeTimings(xml::Node el, const TargetParamItem& p) {
  addLine(el, "InterByte").setAttribute("Delay", num(p.InterByteDelay()));
  addLine(el, "ReplyToRequest").setAttribute("Delay", num(p.ReplyToRequestDelay()));
  addLine(el, "RequestToReply").setAttribute("Timeout", num(p.RequestToReplyTimeout()));
  addLine(el, "TesterPresent").setAttribute("Delay", num(p.TesterPresentDelay()));
  addLine(el, "OnError").setAttribute("Delay", num(p.ErrorDelay()));
}

// "KW2" carries the KW2 timeout only in the mode-1 "ISO8" and in "Protocol".
void writeKeys(xml::Node el, const TargetParamItem& p, bool withTimeout) {
  addLine(el, "KW1").setAttribute("Value", num(p.key1()));
  xml::Node kw2 = addLine(el, "KW2");
  kw2.setAttribute("Value", num(p.key2()));
  if (withTimeout) kw2.setAttribute("Timeout", num(p.KW2Timeout()));
}

void writeIso8(xml::Node parent, const TargetParamItem& p, bool withTimeout) {
  xml::Node iso8 = addLine(parent, "ISO8");
  addLine(iso8, "L");
  writeKeys(iso8, p, withTimeout);
  addLine(iso8, "FirstRequest").setAttribute("Delay", num(p.FirstRequestDelay()));
  endLines(iso8);
}

}  // namespace

void TargetParamItem::createXMLnode(xml::Document& /*odoc*/, xml::Node parent) {
  auto target = parent_.lock();
  auto session = sessionOf(target);

  xml::Node desc = addLine(parent, "Description");
  if (!Comment_.empty()) desc.appendCData(Comment_);
  xml::Node date = addLine(parent, "DateOfficialisation");
  if (!DateOfficialisation_.empty()) date.appendText(DateOfficialisation_);
  xml::Node failures = addLine(parent, "Failures");
  failures.setAttribute("Name", TypePanne_);
  failures.setAttribute("Id", num(TypePanneId_));
  if (!Reprogrammable_.empty()) addLine(parent, "Boot").setAttribute("Name", Reprogrammable_);
  xml::Node power = addLine(parent, "PowerSupply");
  addLine(power, "Ground");
  addLine(power, "Vbat");
  addLine(power, "AfterContact");
  endLines(power);

  if (initMode_ == 0 || initMode_ == 1 || initMode_ == 2) {
    xml::Node k = addLine(parent, "K");
    k.setAttribute("BaudRate", num(BaudRate_));
    if (initMode_ == 0) {
      writeIso8(k, *this, false);
    } else {
      xml::Node kwp = addLine(k, "KWP");
      kwp.setAttribute("Multipoint", multiPoint_ ? "1" : "0");
      if (initMode_ == 1) {
        writeIso8(kwp, *this, true);
        addLine(kwp, "KW2_").setAttribute("Delay", num(KW2Delay_));
      } else {
        xml::Node fast = addLine(kwp, "FastInit");
        writeKeys(fast, *this, false);
        endLines(fast);
      }
      endLines(kwp);
    }
    writeTimings(k, *this);
    endLines(k);
  } else if (initMode_ == 3 || initMode_ == 255) {
    xml::Node can = addLine(parent, "CAN");
    can.setAttribute("BaudRate", num(BaudRate_));
    can.setAttribute("Multipoint", multiPoint_ ? "1" : "0");
    can.setAttribute("InitMode", num(initMode_));
    int32_t sendId = -1;
    int32_t receiveId = -1;
    if (initMode_ == 3) {
      // Mode 3 identifiers belong to the function at the target's address.
      if (session && session->functions() && target) {
        if (auto f = session->functions()->ItemAddress(target->Address())) {
          sendId = f->CanXId();
          receiveId = f->CanRId();
        }
      }
    } else {
      sendId = CanXId_;
      receiveId = CanRId_;
    }
    if (sendId != -1) writeCanId(can, "SendId", sendId);
    if (receiveId != -1) writeCanId(can, "ReceiveId", receiveId);
    endLines(can);
  } else {
    xml::Node proto = addLine(parent, "Protocol");
    if (session && session->protocols()) {
      auto p = session->protocols()->ItemId(initMode_, multiPoint_);
      if (!p) {
        for (const auto& candidate : *session->protocols())
          if (candidate->initMode() == initMode_) {
            p = candidate;
            break;
          }
      }
      if (p) proto.setAttribute("Name", p->protocolName());
    }
    proto.setAttribute("InitMode", num(initMode_));
    proto.setAttribute("Multipoint", multiPoint_ ? "1" : "0");
    proto.setAttribute("BaudRate", num(BaudRate_));
    writeTimings(proto, *this);
    writeKeys(proto, *this, true);
    addLine(proto, "KW2_").setAttribute("Delay", num(KW2Delay_));
    addLine(proto, "FirstRequest").setAttribute("Delay", num(FirstRequestDelay_));
    endLines(proto);
  }
}

namespace {

// Reads whichever timing and key elements stand directly under `el`.
void readTimings(const xml::Node& el, int32_t& interByte, int32_t& replyToRequest, int32_t& requestToReply,
                 int32_t& testerPresent, int32_t& onError, int32_t& key1, int32_t& key2, int32_t& kw2Timeout,
                 int32_t& kw2Delay, int32_t& firstRequest) {
  if (el.isNull()) return;
  target::attrInt(el.child("InterByte"), "Delay", interByte, kLoadSource);
  target::attrInt(el.child("ReplyToRequest"), "Delay", replyToRequest, kLoadSource);
  target::attrInt(el.child("RequestToReply"), "Timeout", requestToReply, kLoadSource);
  target::attrInt(el.child("TesterPresent"), "Delay", testerPresent, kLoadSource);
  target::attrInt(el.child("OnError"), "Delay", onError, kLoadSource);
  target::attrInt(el.child("KW1"), "Value", key1, kLoadSource);
  target::attrInt(el.child("KW2"), "Value", key2, kLoadSource);
  target::attrInt(el.child("KW2"), "Timeout", kw2Timeout, kLoadSource);
  target::attrInt(el.child("KW2_"), "Delay", kw2Delay, kLoadSource);
  target::attrInt(el.child("FirstRequest"), "Delay", firstRequest, kLoadSource);
}

// The first line description among the target element's children.
xml::Node lineElement(const xml::Node& targetEl) {
  // Walked in place: a list of every child would cost as much again as a
  // target element with very many children.
  for (xml::Node c = targetEl.firstChild(); c; c = c.nextSibling()) {
    if (c.type() != xml::NodeType::Element) continue;
    std::string n = c.name();
    if (n == "Protocol" || n == "K" || n == "CAN") return c;
  }
  return {};
}

}  // namespace

void TargetParamItem::loadXml(xml::Document& /*odoc*/, xml::Node node) {
  // Every reader starts from the defaults: attributes equal to their default
  // may have been left out.
  {
    const TargetParamItem d;
    initMode_ = d.initMode_;
    multiPoint_ = d.multiPoint_;
    key1_ = d.key1_;
    key2_ = d.key2_;
    BaudRate_ = d.BaudRate_;
    InterByteDelay_ = d.InterByteDelay_;
    KW2Delay_ = d.KW2Delay_;
    FirstRequestDelay_ = d.FirstRequestDelay_;
    ReplyToRequestDelay_ = d.ReplyToRequestDelay_;
    TesterPresentDelay_ = d.TesterPresentDelay_;
    KW2Timeout_ = d.KW2Timeout_;
    RequestToReplyTimeout_ = d.RequestToReplyTimeout_;
    ErrorDelay_ = d.ErrorDelay_;
    LittleEndian_ = d.LittleEndian_;
    Reprogrammable_.clear();
    DateOfficialisation_.clear();
    Comment_.clear();
    TypePanneId_ = d.TypePanneId_;
    TypePanne_ = kNoFailure;
    CanXId_ = -1;
    CanRId_ = -1;
  }
  changed_ = true;
  if (node.isNull()) return;

  if (xml::Node desc = node.child("Description"); !desc.isNull()) Comment_ = desc.text();
  if (xml::Node date = node.child("DateOfficialisation"); !date.isNull()) DateOfficialisation_ = date.text();
  if (xml::Node failures = node.child("Failures"); !failures.isNull()) {
    target::attrText(failures, "Name", TypePanne_);
    if (!target::attrInt(failures, "Id", TypePanneId_, kLoadSource) && !failures.hasAttribute("Id")) {
      // No id in the file: take the catalogue's id of that label, if any.
      auto session = sessionOf(parent_.lock());
      if (session && session->Pannes())
        if (auto p = session->Pannes()->ItemName(TypePanne_)) TypePanneId_ = p->id();
    }
  }
  target::attrText(node.child("Boot"), "Name", Reprogrammable_);

  auto timings = [this](const xml::Node& el) {
    readTimings(el, InterByteDelay_, ReplyToRequestDelay_, RequestToReplyTimeout_, TesterPresentDelay_, ErrorDelay_,
                key1_, key2_, KW2Timeout_, KW2Delay_, FirstRequestDelay_);
  };

  xml::Node line = lineElement(node);
  const std::string kind = line.isNull() ? std::string() : line.name();
  if (kind == "Protocol") {
    target::attrInt(line, "InitMode", initMode_, kLoadSource);
    target::attrBool(line, "Multipoint", multiPoint_, kLoadSource);
    target::attrInt(line, "BaudRate", BaudRate_, kLoadSource);
    timings(line);
  } else if (kind == "K") {
    target::attrInt(line, "BaudRate", BaudRate_, kLoadSource);
    timings(line);
    if (xml::Node iso8 = line.child("ISO8"); !iso8.isNull()) {
      initMode_ = 0;
      timings(iso8);
    } else if (xml::Node kwp = line.child("KWP"); !kwp.isNull()) {
      target::attrBool(kwp, "Multipoint", multiPoint_, kLoadSource);
      timings(kwp);
      if (xml::Node kwpIso8 = kwp.child("ISO8"); !kwpIso8.isNull()) {
        initMode_ = 1;
        timings(kwpIso8);
      } else {
        initMode_ = 2;
        timings(kwp.child("FastInit"));
      }
    }
  } else if (kind == "CAN") {
    CanDescription can;
    isCan(node, can);
    initMode_ = can.initMode;
    multiPoint_ = can.multiPoint;
    BaudRate_ = can.BaudRate;
    CanXId_ = can.CanXId;
    CanRId_ = can.CanRId;
  }

  if (auto endian = node.child("Requests").isNull() ? std::nullopt : node.child("Requests").attribute("Endian"))
    LittleEndian_ = *endian == "Little";
}

bool TargetParamItem::isCan(const xml::Node& element, CanDescription& out) const {
  out = CanDescription{};
  if (element.isNull()) return false;
  xml::Node can = element.child("CAN");
  if (can.isNull()) return false;
  // Missing attributes give the construction defaults (mode 3 for CAN).
  const TargetParamItem d;
  out.multiPoint = d.multiPoint_;
  out.initMode = 3;
  out.BaudRate = d.BaudRate_;
  target::attrBool(can, "Multipoint", out.multiPoint, kLoadSource);
  target::attrInt(can, "InitMode", out.initMode, kLoadSource);
  target::attrInt(can, "BaudRate", out.BaudRate, kLoadSource);
  out.CanXId = readCanId(can, "SendId");
  out.CanRId = readCanId(can, "ReceiveId");
  return true;
}

}  // namespace kavrel
