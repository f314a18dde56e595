# The test programs that a cross-build builds and runs, through qemu; a zym_add_test of any other name
# is then a program that only `--target NAME` builds. Under the emulator a program takes ten to a
# hundred times as long as on a processor, and these tests are a part of every full run.
#
# Left out:
# - passes over random models, one of which takes minutes with all its cases: pass_test,
#   context_*test, model_determinism_test, model_reference_test, diagnostics_*test, reset_rules_test,
#   decode_loop_test, prompt_*_test, engine_test and most of tests/abi. known_bits_test and
#   family_test run such passes, and a demonstration chat runs the program with the plugin;
# - what depends on no processor: tests/convert;
# - programs that start others, which the emulator does not follow: dispatch_test and the rest of
#   tests/host and tests/e2e.
set(zym_emulated_tests
  # tests/quant
  quant_type_test block_sizes_test bfloat16_test half_test dequant_test quant_test
  # tests/container
  status_test byte_cursor_test crc64_test zym2_reader_test zym_loader_test
  container_robustness_test zym2_writer_test container_example_test
  # tests/tokenizer
  alphabet_test vocab_text_test whitespace_test word_splitter_test bpe_merger_test special_tokens_test string_index_test
  tokenizer_test encode_test
  # tests/qwen35
  processors_test elementwise_test exponential_test kernels_variants_test
  quantised_products_test products_test matmul_test state_buffer_test bind_test run_check_test aligned_vectors_test full_attention_test
  linear_attention_test forward_test team_test norm_rules_test attention_rules_test
  linear_rules_test
  # tests/session
  sampler_test known_bits_test
  # tests/engine
  family_test
  # tests/capi
  engine_exports_test engine_header_test
  # tests/abi
  tables_test exports_test public_header_test probe_test
  # tests/host
  host_test)
