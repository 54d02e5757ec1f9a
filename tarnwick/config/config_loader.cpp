#include <string.h>
#include <sys/stat.h>
#include <tinyxml2.h>

#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"

using tinyxml2::XMLElement;

namespace {

const char kConfigPath[] = "/odm/etc/odmconfig.xml";

bool is_named(const XMLElement* element, const char* name) {
  return strcmp(element->Name(), name) == 0;
}

// Returns the text of |element| when its first child node is text, else null.
// (tinyxml2's GetText() would look past a leading comment.)
const char* text_of(const XMLElement* element) {
  const tinyxml2::XMLNode* first = element->FirstChild();
  const tinyxml2::XMLText* text = first != nullptr ? first->ToText() : nullptr;
  return text != nullptr ? text->Value() : nullptr;
}

// Returns the next sibling of |element| that the model list reads: "setup_odm",
// which closes the list, or an element with a "name". Others are passed over.
const XMLElement* next_model(const XMLElement* element) {
  do {
    element = element->NextSiblingElement();
  } while (element != nullptr && !is_named(element, "setup_odm") &&
           element->Attribute("name") == nullptr);
  return element;
}

// Adds (|model_name|, text) to ModelAliasMap for each alias of |model| that has text.
void read_model_aliases(const XMLElement* model, const char* model_name) {
  for (const XMLElement* alias = model->FirstChildElement("alias"); alias != nullptr;
       alias = alias->NextSiblingElement()) {
    const char* text = text_of(alias);
    if (text == nullptr) continue;
    LOG(ERROR) << text;
    ModelAliasMap.emplace(model_name, text);
  }
}

// Adds (target name, text) to TargetAliasMap for each alias of each named target of |block|.
void read_block_targets(const XMLElement* block) {
  for (const XMLElement* target = block->FirstChildElement("target"); target != nullptr;
       target = target->NextSiblingElement()) {
    const char* target_name = target->Attribute("name");
    if (target_name == nullptr) continue;
    for (const XMLElement* alias = target->FirstChildElement("alias"); alias != nullptr;
         alias = alias->NextSiblingElement()) {
      const char* text = text_of(alias);
      if (text == nullptr) continue;
      LOG(ERROR) << "aliasName " << text;
      LOG(ERROR) << "target_name " << target_name;
      TargetAliasMap.emplace(target_name, text);
    }
  }
}

// Loads |document| from the configuration file. Only a regular file is handed
// to the parser: it sizes its buffer by seeking to the end, which a directory
// answers with a nonsense length.
void load_config(tinyxml2::XMLDocument* document) {
  UniqueFile file = open_file(kConfigPath, "r");
  struct stat st;
  if (!file || fstat(fileno(file.get()), &st) != 0 || !S_ISREG(st.st_mode)) return;
  document->LoadFile(file.get());
}

}  // namespace

void create_map_from_config() {
  tinyxml2::XMLDocument document(true /* processEntities */);
  load_config(&document);
  const XMLElement* root = document.FirstChildElement();
  if (root == nullptr) return;

  // The model list runs from the first "model" to "setup_odm", whatever the
  // names of the elements between.
  const XMLElement* model = root->FirstChildElement("model");
  while (model != nullptr) {
    if (const char* model_name = model->Attribute("name")) {
      LOG(ERROR) << "attribute " << model_name;
      read_model_aliases(model, model_name);
    }
    model = next_model(model);
    if (model == nullptr) break;
    LOG(ERROR) << "element name " << model->Name();
    if (is_named(model, "setup_odm")) {
      LOG(ERROR) << "Breaking Bad";
      break;
    }
  }
  LOG(ERROR) << "--END OF FISRT LOOP--- ";

  const XMLElement* setup = root->FirstChildElement("setup_odm");
  const XMLElement* block = setup != nullptr ? setup->FirstChildElement("prop_value") : nullptr;
  for (; block != nullptr; block = block->NextSiblingElement()) {
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
