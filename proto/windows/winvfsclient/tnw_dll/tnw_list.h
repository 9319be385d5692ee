/*
 * Circular, doubly linked lists whose links are in the records.
 *
 * Every head and every node begins with its two link fields (first and last node in a head, next
 * and previous in a node), under names of its own; an empty head points at itself. A node that is
 * on no list has null links. The caller holds the list's lock.
 */
#ifndef TNW_LIST_H
#define TNW_LIST_H

/* May alias: one view of the link fields of every kind of record. */
struct [[gnu::may_alias]] tnw_links {
  tnw_links* next;
  tnw_links* prev;
};

inline tnw_links* tnw_list_links(void* record) { return static_cast<tnw_links*>(record); }

inline void tnw_list_init(void* head) {
  tnw_links* h = tnw_list_links(head);
  h->next = h;
  h->prev = h;
}

inline bool tnw_list_empty(void* head) { return tnw_list_links(head)->next == head; }

inline void tnw_list_insert(tnw_links* before, tnw_links* node) {
  node->next = before;
  node->prev = before->prev;
  before->prev->next = node;
  before->prev = node;
}

inline void tnw_list_append(void* head, void* node) {
  tnw_list_insert(tnw_list_links(head), tnw_list_links(node));
}

inline void tnw_list_push_front(void* head, void* node) {
  tnw_list_insert(tnw_list_links(head)->next, tnw_list_links(node));
}

inline void tnw_list_unlink(void* node) {
  tnw_links* n = tnw_list_links(node);
  n->prev->next = n->next;
  n->next->prev = n->prev;
  n->next = nullptr;
  n->prev = nullptr;
}

/* The first node for which `match` holds, or null. */
template <class Node, class Match>
Node* tnw_list_find(void* head, Match match) {
  for (tnw_links* l = tnw_list_links(head)->next; l != head; l = l->next) {
    Node* node = reinterpret_cast<Node*>(l);
    if (match(node)) {
      return node;
    }
  }
  return nullptr;
}

#endif
