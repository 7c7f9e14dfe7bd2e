#include "config/namespaces.h"

std::set<std::string> namespaces;
