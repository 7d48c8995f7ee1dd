#include "campaign_text.h"

#include <fmt/format.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/wire_format_lite.h>

#include <iterator>
#include <memory>
#include <stdexcept>

#include "input/bounded_input.h"

namespace {

namespace pb = google::protobuf;
using pb::internal::WireFormatLite;

constexpr std::string_view FILE_HEAD("\xCD\xF1\0", 3);
constexpr size_t CAMPAIGN_MAX_BYTES = size_t{1} << 20;
constexpr uint32_t MPS_MODULE = 6;
constexpr int MPS_FIELD = 2;  // in the text's CampaignLogic only

// The messages of the text: the daemon's, and CampaignLogic with its second field. Both ways lead
// over the bytes: what is field `mps` there is a field that the daemon's message does not know.
class text_messages {
  public:
    text_messages() {
        pb::FileDescriptorProto file;
        vexa::CampaignDescriptionMap::descriptor()->file()->CopyTo(&file);
        for (auto& message : *file.mutable_message_type()) {
            if (message.name() == "CampaignLogic") add_mps_field(&message);
        }
        pool_.BuildFile(file);
    }

    std::unique_ptr<pb::Message> new_map() {
        const auto* type = pool_.FindMessageTypeByName("vexa.CampaignDescriptionMap");
        return std::unique_ptr<pb::Message>(factory_.GetPrototype(type)->New());
    }

  private:
    static void add_mps_field(pb::DescriptorProto* message) {
        auto* field = message->add_field();
        field->set_name("mps");
        field->set_number(MPS_FIELD);
        field->set_label(pb::FieldDescriptorProto::LABEL_OPTIONAL);
        field->set_type(pb::FieldDescriptorProto::TYPE_MESSAGE);
        field->set_type_name(".vexa.MpsCampaignDescription");
    }

    pb::DescriptorPool pool_;
    pb::DynamicMessageFactory factory_;
};

class first_error : public pb::io::ErrorCollector {
  public:
    void AddError(int line, pb::io::ColumnNumber column, const std::string& message) override {
        if (text.empty())
            text = fmt::format("line {}, column {}: {}", line + 1, column + 1, message);
    }
    std::string text;
};

// Puts what was written as `mps` into the logic.
void take_mps(vexa::CampaignLogic* logic) {
    auto* unknown = logic->GetReflection()->MutableUnknownFields(logic);
    if (unknown->empty()) return;
    if (!logic->logic().empty()) throw std::runtime_error("a campaign has both logic and mps");
    logic->set_logic(unknown->field(0).length_delimited());
    unknown->Clear();
}

// Moves logic to `mps` where its text leads back to the same bytes.
void give_mps(vexa::CampaignLogic* logic) {
    vexa::MpsCampaignDescription mps;
    if (!mps.ParseFromString(logic->logic()) || mps.SerializeAsString() != logic->logic()) return;
    if (!mps.GetReflection()->GetUnknownFields(mps).empty()) return;
    logic->GetReflection()->MutableUnknownFields(logic)->AddLengthDelimited(MPS_FIELD,
                                                                            logic->logic());
    logic->clear_logic();
}

// The elements of a map, which begins at `offset` of the file.
std::vector<std::string> split_map(std::string_view map, size_t offset) {
    pb::io::CodedInputStream stream(reinterpret_cast<const uint8_t*>(map.data()),
                                    static_cast<int>(map.size()));
    constexpr uint32_t ENTRY_TAG =
        WireFormatLite::MakeTag(1, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
    std::vector<std::string> entries;
    while (stream.CurrentPosition() < static_cast<int>(map.size())) {
        const size_t at = offset + static_cast<size_t>(stream.CurrentPosition());
        const uint32_t tag = stream.ReadTag();
        uint32_t length = 0;
        const bool whole = tag == ENTRY_TAG ? stream.ReadVarint32(&length) &&
                                                  stream.ReadString(&entries.emplace_back(),
                                                                    static_cast<int>(length))
                                            : tag != 0 && WireFormatLite::SkipField(&stream, tag);
        if (!whole) {
            throw std::runtime_error(fmt::format("offset {}: damaged, campaign {} is not whole", at,
                                                 std::max<size_t>(entries.size(), 1)));
        }
    }
    return entries;
}

}  // namespace

std::string campaign_read_file(const std::string& path) {
    return read_bounded_input(path, CAMPAIGN_MAX_BYTES);
}

std::vector<std::string> campaign_file_split(const std::string& path) {
    const std::string file = campaign_read_file(path);
    if (file.empty()) throw std::runtime_error("is empty");
    if (path.ends_with(".camp")) return {file};
    if (!file.starts_with(FILE_HEAD.substr(0, 2))) {
        throw std::runtime_error("offset 0: no campaign file, which begins with the bytes cd f1");
    }
    const size_t head = std::min(file.size(), FILE_HEAD.size());
    auto entries = split_map(std::string_view(file).substr(head), head);
    if (entries.empty()) throw std::runtime_error("holds no campaign");
    return entries;
}

vexa::CampaignDescriptionMap campaign_parse(const std::vector<std::string>& entries) {
    vexa::CampaignDescriptionMap map;
    for (size_t i = 0; i < entries.size(); i++) {
        if (!map.add_entry()->ParseFromString(entries[i])) {
            throw std::runtime_error(fmt::format("campaign {} is damaged", i + 1));
        }
    }
    return map;
}

vexa::CampaignDescriptionMap campaign_from_text(const std::string& text) {
    text_messages messages;
    const auto written = messages.new_map();
    first_error error;
    pb::TextFormat::Parser parser;
    parser.RecordErrorsTo(&error);
    if (!parser.ParseFromString(text, written.get())) throw std::runtime_error(error.text);
    vexa::CampaignDescriptionMap map;
    map.ParseFromString(written->SerializeAsString());
    for (auto& entry : *map.mutable_entry()) {
        if (entry.enablementandlogic().has_logic()) {
            take_mps(entry.mutable_enablementandlogic()->mutable_logic());
        }
    }
    return map;
}

std::string campaign_to_text(const vexa::CampaignDescriptionMap& map) {
    vexa::CampaignDescriptionMap copy = map;
    for (auto& entry : *copy.mutable_entry()) {
        if (entry.moduleid() == MPS_MODULE && !entry.enablementandlogic().logic().logic().empty()) {
            give_mps(entry.mutable_enablementandlogic()->mutable_logic());
        }
    }
    text_messages messages;
    const auto shown = messages.new_map();
    shown->ParseFromString(copy.SerializeAsString());
    std::string text;
    pb::TextFormat::PrintToString(*shown, &text);
    return text;
}

std::string campaign_file_bytes(const vexa::CampaignDescriptionMap& map) {
    return std::string(FILE_HEAD) + map.SerializeAsString();
}
