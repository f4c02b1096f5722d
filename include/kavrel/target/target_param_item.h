// Communication parameters of one target (a row of [Paramètres UCE], keyed
// by [Ecu Id] = the target's id): line initialisation, keys, baud rate,
// timings, byte order, CAN identifiers, failure type, reprogramming and
// approval information. Setters that change a value raise ValueChanged.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "kavrel/event.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

enum targetParameter : int32_t {
  p_initMode = 0,
  p_multiPoint = 1,
  p_key1 = 2,
  p_key2 = 3,
  p_BaudRate = 4,
  p_InterByteDelay = 5,
  p_KW2Delay = 6,
  p_FirstRequestDelay = 7,
  p_ReplyToRequestDelay = 8,
  p_TesterPresentDelay = 9,
  p_KW2Timeout = 10,
  p_RequestToReplyTimeout = 11,
  p_ErrorDelay = 12,
  p_LittleEndian = 13,
  p_Reprogrammable = 14,
  p_DateOfficialisation = 15,
};

// A parameter's value of any of the property types (empty = none).
using ParamValue = std::variant<std::monostate, int32_t, bool, std::string>;

// What isCan() reports about a target element's line description.
struct CanDescription {
  bool multiPoint = true;
  int32_t initMode = 0;
  int32_t BaudRate = 0;
  int32_t CanXId = -1;  // send identifier, bit 31 set when extended
  int32_t CanRId = -1;  // receive identifier
};

class TargetParamItem {
  friend class TargetItem;  // puts the changed flag back after an undone insert

 public:
  TargetParamItem() = default;

  int32_t initMode() const { return initMode_; }
  void setInitMode(int32_t v);
  bool multiPoint() const { return multiPoint_; }
  void setMultiPoint(bool v);
  int32_t key1() const { return key1_; }
  void setKey1(int32_t v);
  int32_t key2() const { return key2_; }
  void setKey2(int32_t v);
  int32_t BaudRate() const { return BaudRate_; }
  void setBaudRate(int32_t v);
  int32_t InterByteDelay() const { return InterByteDelay_; }
  void setInterByteDelay(int32_t v);
  int32_t KW2Delay() const { return KW2Delay_; }
  void setKW2Delay(int32_t v);
  int32_t FirstRequestDelay() const { return FirstRequestDelay_; }
  void setFirstRequestDelay(int32_t v);
  int32_t ReplyToRequestDelay() const { return ReplyToRequestDelay_; }
  void setReplyToRequestDelay(int32_t v);
  int32_t TesterPresentDelay() const { return TesterPresentDelay_; }
  void setTesterPresentDelay(int32_t v);
  int32_t KW2Timeout() const { return KW2Timeout_; }
  void setKW2Timeout(int32_t v);
  int32_t RequestToReplyTimeout() const { return RequestToReplyTimeout_; }
  void setRequestToReplyTimeout(int32_t v);
  int32_t ErrorDelay() const { return ErrorDelay_; }
  void setErrorDelay(int32_t v);
  bool LittleEndian() const { return LittleEndian_; }
  void setLittleEndian(bool v);
  const std::string& Reprogrammable() const { return Reprogrammable_; }
  void setReprogrammable(std::string v);
  const std::string& DateOfficialisation() const { return DateOfficialisation_; }
  void setDateOfficialisation(std::string v);
  const std::string& Comment() const { return Comment_; }
  void setComment(std::string v);
  int32_t TypePanneId() const { return TypePanneId_; }
  void setTypePanneId(int32_t v);
  const std::string& TypePanne() const { return TypePanne_; }
  void setTypePanne(std::string v);
  // Only store: no changed flag, no event.
  int32_t CanXId() const { return CanXId_; }
  void setCanXId(int32_t v) { CanXId_ = v; }
  int32_t CanRId() const { return CanRId_; }
  void setCanRId(int32_t v) { CanRId_ = v; }

  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }

  // The private changed flag (set by changing setters, cleared by a
  // successful database read, insert or update).
  bool isChanged() const { return changed_; }

  Event<> ValueChanged;

  void clear();
  bool isDefaultValue(targetParameter param, ParamValue& defaultValue) const;
  void SetDefaultValue(targetParameter param);

  // Both readers throw error 100 "Target not defined" for a null target.
  void DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);

  // Reads the line description back; a missing element or attribute leaves
  // its value at the construction default (so a "KW2" without "Timeout"
  // gives KW2Timeout 300).
  void loadXml(xml::Document& odoc, xml::Node node);
  bool isCan(const xml::Node& element, CanDescription& out) const;
  // Writes the parameters under the target element. The line description
  // depends on initMode: "KW2" carries "Timeout" (KW2Timeout) only in the
  // mode-1 "ISO8" and in the "Protocol" form, so modes 0 and 2 do not keep a
  // KW2Timeout other than the default through a document. "CAN" also
  // carries "InitMode" (beyond the documented "BaudRate" and "Multipoint"):
  // without it, mode 3 and mode 255 could not be told apart on reading back.
  void createXMLnode(xml::Document& odoc, xml::Node parent);

 private:
  int32_t initMode_ = 2;
  bool multiPoint_ = true;
  int32_t key1_ = 208;
  int32_t key2_ = 143;
  int32_t BaudRate_ = 10400;
  int32_t InterByteDelay_ = 0;
  int32_t KW2Delay_ = 25;
  int32_t FirstRequestDelay_ = 20;
  int32_t ReplyToRequestDelay_ = 5;
  int32_t TesterPresentDelay_ = 3000;
  int32_t KW2Timeout_ = 300;
  int32_t RequestToReplyTimeout_ = 300;
  int32_t ErrorDelay_ = 300;
  bool LittleEndian_ = false;
  std::string Reprogrammable_;
  std::string DateOfficialisation_;
  std::string Comment_;
  int32_t TypePanneId_ = 0;
  std::string TypePanne_ = "Ne contient pas de pannes";
  int32_t CanXId_ = -1;
  int32_t CanRId_ = -1;
  std::weak_ptr<TargetItem> parent_;
  bool changed_ = false;
};

}  // namespace kavrel
