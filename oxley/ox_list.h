/*
 * Circular, doubly linked lists whose links are in the records. C++ only.
 *
 * A list head and every record that can be on a list begin with two links: the first and the last
 * record in a head, the next and the previous one in a record. Each type gives them names of its
 * own. An empty head points at itself. A record that is on no list has null links; memory filled
 * with zeroes is such a record. The caller holds the list's lock.
 */
#ifndef OX_LIST_H
#define OX_LIST_H

/* The links of a record of any type, which is why they may alias. */
struct [[gnu::may_alias]] ox_links {
  ox_links* next;
  ox_links* prev;
};

inline ox_links* ox_list_links(void* record) { return static_cast<ox_links*>(record); }

inline const ox_links* ox_list_links(const void* record) {
  return static_cast<const ox_links*>(record);
}

inline void ox_list_init(void* head) {
  ox_links* links = ox_list_links(head);
  links->next = links;
  links->prev = links;
}

inline bool ox_list_empty(const void* head) { return ox_list_links(head)->next == head; }

/* Whether the record is on a list. */
inline bool ox_list_linked(const void* record) { return ox_list_links(record)->next != nullptr; }

inline void ox_list_insert(ox_links* before, ox_links* record) {
  record->next = before;
  record->prev = before->prev;
  before->prev->next = record;
  before->prev = record;
}

inline void ox_list_append(void* head, void* record) {
  ox_list_insert(ox_list_links(head), ox_list_links(record));
}

inline void ox_list_push_front(void* head, void* record) {
  ox_list_insert(ox_list_links(head)->next, ox_list_links(record));
}

inline void ox_list_unlink(void* record) {
  ox_links* links = ox_list_links(record);
  links->prev->next = links->next;
  links->next->prev = links->prev;
  links->next = nullptr;
  links->prev = nullptr;
}

/* The first record for which `match` holds, or null. */
template <class Record, class Match>
Record* ox_list_find(void* head, Match match) {
  for (ox_links* links = ox_list_links(head)->next; links != head; links = links->next) {
    auto* record = reinterpret_cast<Record*>(links);
    if (match(record)) {
      return record;
    }
  }
  return nullptr;
}

#endif
