// Payload parsers of the box's answers; base of the link controller. Holds no data.
#pragma once

class COBDParser {
  public:
    COBDParser() {}
    ~COBDParser() {}
};
