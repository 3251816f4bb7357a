// A header of the consumer's, with a name that one of the library's has, too.
#pragma once

using OwnLength = unsigned;
