int fake_placeholder;
