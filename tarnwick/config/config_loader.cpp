#include <string.h>
#include <sys/stat.h>

#include "tarnwick/config/config.h"
#include "tarnwick/config/config_document.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"

using tinyxml2::XMLElement;

namespace {

bool is_named(const XMLElement* element, const char* name) {
  return strcmp(element->Name(), name) == 0;
}

// Adds (|model_name|, text) to ModelAliasMap for each alias of |model| that has text.
void read_model_aliases(const XMLElement* model, const char* model_name) {
  for (const XMLElement* alias = first_alias(model); alias != nullptr;
       alias = alias->NextSiblingElement()) {
    const char* text = text_of(alias);
    if (text == nullptr) continue;
    LOG(ERROR) << text;
    ModelAliasMap.emplace(model_name, text);
  }
}

// Adds (target name, text) to TargetAliasMap for each alias of each named target of |block|.
void read_block_targets(const XMLElement* block) {
  for (const XMLElement* target = first_target(block); target != nullptr;
       target = target->NextSiblingElement()) {
    const char* target_name = target->Attribute("name");
    if (target_name == nullptr) continue;
    for (const XMLElement* alias = first_alias(target); alias != nullptr;
         alias = alias->NextSiblingElement()) {
      const char* text = text_of(alias);
      if (text == nullptr) continue;
      LOG(ERROR) << "aliasName " << text;
      LOG(ERROR) << "target_name " << target_name;
      TargetAliasMap.emplace(target_name, text);
    }
  }
}

}  // namespace

// Only a regular file is handed to the parser: it sizes its buffer by seeking
// to the end, which a directory answers with a nonsense length.
void load_config(tinyxml2::XMLDocument* document) {
  UniqueFile file = open_file(kConfigPath, "r");
  struct stat st;
  if (!file || fstat(fileno(file.get()), &st) != 0 || !S_ISREG(st.st_mode)) return;
  document->LoadFile(file.get());
}

const XMLElement* first_model(const XMLElement* root) { return root->FirstChildElement("model"); }

const XMLElement* next_model(const XMLElement* element) {
  do {
    element = element->NextSiblingElement();
  } while (element != nullptr && !closes_model_list(element) &&
           element->Attribute("name") == nullptr);
  return element;
}

bool closes_model_list(const XMLElement* element) { return is_named(element, "setup_odm"); }

const XMLElement* setup_section(const XMLElement* root) {
  return root->FirstChildElement("setup_odm");
}

const XMLElement* first_block(const XMLElement* setup) {
  return setup->FirstChildElement("prop_value");
}

const XMLElement* first_target(const XMLElement* block) {
  return block->FirstChildElement("target");
}

const XMLElement* first_alias(const XMLElement* owner) { return owner->FirstChildElement("alias"); }

const char* text_of(const XMLElement* alias) {
  const tinyxml2::XMLNode* first = alias->FirstChild();
  const tinyxml2::XMLText* text = first != nullptr ? first->ToText() : nullptr;
  return text != nullptr ? text->Value() : nullptr;
}

void create_map_from_config() {
  tinyxml2::XMLDocument document(true /* processEntities */);
  load_config(&document);
  const XMLElement* root = document.FirstChildElement();
  if (root == nullptr) return;

  // The model list runs from the first "model" to "setup_odm", whatever the
  // names of the elements between.
  const XMLElement* model = first_model(root);
  while (model != nullptr) {
    if (const char* model_name = model->Attribute("name")) {
      LOG(ERROR) << "attribute " << model_name;
      read_model_aliases(model, model_name);
    }
    model = next_model(model);
    if (model == nullptr) break;
    LOG(ERROR) << "element name " << model->Name();
    if (closes_model_list(model)) {
      LOG(ERROR) << "Breaking Bad";
      break;
    }
  }
  LOG(ERROR) << "--END OF FISRT LOOP--- ";

  const XMLElement* setup = setup_section(root);
  for (const XMLElement* block = setup != nullptr ? first_block(setup) : nullptr; block != nullptr;
       block = block->NextSiblingElement()) {
    const char* config_name = block->Attribute("config_name");
    const char* config_value = block->Attribute("config_value");
    if (config_name == nullptr || config_value == nullptr) continue;
    LOG(ERROR) << "config_name " << config_name;
    LOG(ERROR) << "config_value " << config_value;
    char device_value[PROP_VALUE_MAX] = {};
    property_get(config_name, device_value, "");
    LOG(ERROR) << "device_prop_value_str " << device_value;
    if (strcmp(device_value, config_value) != 0) continue;
    LOG(ERROR) << "matched ro.config.device";
    read_block_targets(block);
  }
}
