// ACE objects: the field records that an application makes and adds, and the
// reading of a finished object into a rule.
//
// A field is checked when its ACE is set, not when it is made, since only then
// is it known where it is to act and is there a way to report a refusal.
#pragma once

#include "fp_udp.h"
#include "platform/fp/rule.h"

#include <string>
#include <string_view>

namespace vvl::fp
{

// Fields of one ACE object: more than the known ones, so that an unknown name
// is reported as what it is. One more than this makes the object unusable.
constexpr uint32_t ace_fields_max = 16;

// The app type of an ACL's descriptor, and back. Returns false for another.
std::string_view app_type_of(Acl acl);
bool acl_of_app_type(std::string_view app_type, Acl &acl);

// Returns a new object, to be released with free_ace, or null for id 0 or
// where memory runs out.
fp_udp_ace_t *make_ace(uint64_t ace_id);
void free_ace(fp_udp_ace_t *ace); // null is allowed

// Reads an object of make_ace as a rule of the ACL. Returns false with the
// reason, which names the field, and leaves rule alone where an id, a name, a
// kind, a length or a value is not one that the ACL can carry out.
bool read_ace(const fp_udp_ace_t &ace, Acl acl, Rule &rule, std::string &why);

} // namespace vvl::fp
