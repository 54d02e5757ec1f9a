// How the configuration document is walked: shared by the loader and by the
// host tools that explain a document the way the loader reads it. Each list
// starts at the first child element of its own name and goes on through every
// following sibling element, whatever that one's name.
#pragma once

#include <tinyxml2.h>

// Loads /odm/etc/odmconfig.xml into |document|, which stays empty when the
// file is missing, unreadable or not a regular file.
void load_config(tinyxml2::XMLDocument* document);

// The first element of the model list under |root|, or null.
const tinyxml2::XMLElement* first_model(const tinyxml2::XMLElement* root);

// The element after |element| that the model list reads: the "setup_odm" that
// closes the list, or one with a "name"; others are passed over. Null after
// the last sibling.
const tinyxml2::XMLElement* next_model(const tinyxml2::XMLElement* element);

// True when |element| is the "setup_odm" that ends the model list.
bool closes_model_list(const tinyxml2::XMLElement* element);

// The root's first "setup_odm", wherever it stands, or null; and its first
// property-guarded block, or null.
const tinyxml2::XMLElement* setup_section(const tinyxml2::XMLElement* root);
const tinyxml2::XMLElement* first_block(const tinyxml2::XMLElement* setup);

// The first target of |block|, and the first alias of a model or target.
const tinyxml2::XMLElement* first_target(const tinyxml2::XMLElement* block);
const tinyxml2::XMLElement* first_alias(const tinyxml2::XMLElement* owner);

// The text of |alias| when its first child node is text, else null.
// (tinyxml2's GetText() would look past a leading comment.)
const char* text_of(const tinyxml2::XMLElement* alias);
