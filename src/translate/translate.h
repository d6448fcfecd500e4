// Rule-driven translation of configuration values.
#pragma once

// Applies /phone/resource/configTranslate.xml; false when it stopped early or did not start.
bool translateConfig();
