// Forward declarations of the object model.
#pragma once

namespace kavrel {
namespace db {
class Connection;
}
namespace xml {
class Document;
class Node;
}  // namespace xml

class KavrelDatabase;
class FunctionItem;
class FunctionItems;
class ProtocolItem;
class ProtocolItems;
class TypeOrganeItem;
class TypeOrganeItems;
class PanneItem;
class PanneItems;
class TargetItem;
class TargetParamItem;
class AutoIdentItem;
class AutoIdentItems;
class RequestItem;
class RequestItems;
class DataPositionItem;
class DataPositionItems;
class DataItem;
class DataItems;
class DataListeItem;
class DataListeItems;
class OrganeItem;
class OrganeItems;
class DeviceDataItem;
class DeviceDataItems;
class CategoryItem;
class CategoryItems;
class ScreenItem;
class ScreenItems;
class ButtonItem;
class ButtonItems;
class ScenarioItem;
class ScenarioItems;
class LabelItem;
class LabelItems;
class DisplayItem;
class DisplayItems;
class DisplayDataItems;
class DisplayExtraItems;
class ByteFrame;
}  // namespace kavrel
